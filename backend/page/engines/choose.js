// Which engine plays which stream.
import {HlsEngine, loadHls} from './hls.js';
import {NativeEngine} from './native.js';
import {RestartEngine} from './restart.js';
import {SmoothEngine, loadDash} from './smooth.js';

/**
 * The engine for a stream. Pure.
 * @param {{kind: string, seek: string}} stream
 * @param {boolean} mse whether the browser has Media Source Extensions
 * @returns {'hls'|'smooth'|'restart'|'native'}
 */
export function engineFor(stream, mse) {
  if (stream.seek === 'restart') return 'restart';
  if (stream.kind === 'smooth') return 'smooth';
  return stream.kind === 'hls' && mse ? 'hls' : 'native';
}

/** @returns {boolean} whether this browser has Media Source Extensions */
export function hasMediaSource() {
  return 'MediaSource' in globalThis || 'ManagedMediaSource' in globalThis;
}

/**
 * Loads what an engine needs and makes it.
 * @param {import('./engine.js').Setting} setting
 * @param {() => boolean} wanted asked once everything is loaded
 * @returns {Promise<?import('./engine.js').Engine>} null where it is no longer wanted; rejects where
 *     a library cannot be loaded
 */
export async function makeEngine(setting, wanted) {
  const name = engineFor(setting.stream, hasMediaSource());
  const library = name === 'hls' ? await loadHls() : name === 'smooth' ? await loadDash() : null;
  if (!wanted()) return null;
  switch (name) {
    case 'hls': return new HlsEngine(setting, library);
    case 'smooth': return new SmoothEngine(setting, library);
    case 'restart': return new RestartEngine(setting);
    default: return new NativeEngine(setting);
  }
}
