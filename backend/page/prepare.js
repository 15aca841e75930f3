// Gets a stream ready: what is asked of the server, and how early.
import {closeStream, getVideo, openStream} from './api.js';
import {askBrowser} from './capabilities.js';

/**
 * A request for a stream. Pure.
 * @param {number} id the video
 * @param {{kind: string, profile: string, audio?: string, limit?: string}} choice the viewer's
 * @param {Object<string, boolean>} can what the browser can play
 * @returns {object} the body of POST /streams
 */
export function wishFor(id, choice, can) {
  const wish = {video: id, kind: choice.kind, profile: choice.profile, subtitle: 'all', can,
    device: 'web page'};
  if (choice.audio !== undefined) wish.audio = choice.audio;
  if (choice.limit) wish.limit = choice.limit;
  return wish;
}

/**
 * The address of the segment that a stream begins with: asked for at once, it is being made while the
 * player still reads the playlists. Pure.
 * @param {{kind: string, url: string}} stream @param {number} at second at which playback begins
 * @returns {?string} null where only the playlists tell
 */
export function firstSegment(stream, at) {
  return stream.kind === 'hls' && at === 0 ? `${stream.url}&fragment_id=00000` : null;
}

/** What nobody chose otherwise. @param {string} [limit] @returns {object} a choice */
export function firstChoice(limit = '') {
  return {kind: 'auto', profile: 'auto', audio: undefined, limit};
}

const FRESH_MS = 30000;
const TAKEN_WITHIN_MS = 3000;
const films = new Map();
let early = null;

/**
 * A video and what the browser can play of it. Asked once for a while: for a card under the pointer,
 * and again when it is chosen.
 * @param {number} id
 * @returns {Promise<{film: object, can: Object<string, boolean>}>}
 */
export function warmUp(id) {
  const known = films.get(id);
  if (known && performance.now() - known.when < FRESH_MS) return known.promise;
  const promise = getVideo(id).then(async (film) => ({film, can: await askBrowser(film.checks)}));
  films.set(id, {promise, when: performance.now()});
  promise.catch(() => films.delete(id));
  return promise;
}

/**
 * Prepares a stream while a button is still held down. Whoever watches takes it with takeEarly();
 * otherwise it is closed.
 * @param {number} id @param {object} choice
 */
export function prepareEarly(id, choice) {
  dropEarly();
  const promise = warmUp(id).then(({can}) => openStream(wishFor(id, choice, can)));
  promise.catch(() => {});
  early = {id, promise, timer: setTimeout(dropEarly, TAKEN_WITHIN_MS)};
}

/** @param {number} id @returns {?Promise<object>} the stream that prepareEarly() asked for */
export function takeEarly(id) {
  if (early?.id !== id) {
    dropEarly();
    return null;
  }
  clearTimeout(early.timer);
  const {promise} = early;
  early = null;
  return promise;
}

/** Closes what was prepared and not taken. */
export function dropEarly() {
  if (!early) return;
  clearTimeout(early.timer);
  early.promise.then((stream) => closeStream(stream.id), () => {});
  early = null;
}
