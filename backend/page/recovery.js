// What to do when a stream breaks off, or none is given. Pure.
import {explain} from './words.js';

/**
 * @param {{word: string, gone?: boolean}} error
 * @param {{reopened: boolean, kind: string, chosen: string}} state `reopened`: that was tried a
 *     moment ago; `kind` of the stream, `chosen`: what the viewer asked for
 * @returns {'reopen'|'convert'|'wait'|'tell'} prepare another at the same second; the same, as HLS;
 *     count down and try again; say what happened
 */
export function afterTrouble(error, {reopened, kind, chosen}) {
  const {retry} = explain(error);
  if (error.word === 'not-decodable') {
    return chosen === 'auto' && kind !== 'hls' ? 'convert' : 'tell';
  }
  if (retry === 'soon') return 'wait';
  if (retry === 'no') return 'tell';
  return reopened ? 'tell' : 'reopen';
}

/**
 * What to do when a stream is refused.
 * @param {{word: string}} error
 * @param {{hasOld: boolean, replaced: boolean}} state `hasOld`: another stream of this page still
 *     plays; `replaced`: it was closed a moment ago, and its transcoder may still be ending
 * @returns {'replace'|'keep'|'again'|'wait'|'tell'} close the old one and ask again; stay with the
 *     old one; ask again at once; count down and try again; say what happened
 */
export function afterRefusal(error, {hasOld, replaced}) {
  const {retry} = explain(error);
  if (hasOld) return retry === 'soon' ? 'replace' : 'keep';
  if (retry !== 'soon') return 'tell';
  return replaced ? 'again' : 'wait';
}
