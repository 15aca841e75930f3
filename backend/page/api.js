// The server's API, as docs/api.md describes it.
import {retrySeconds} from './words.js';

const BASE = '/api/v1';

/** An answer that is not one. `word` is what words.js explains. */
export class ApiError extends Error {
  /**
   * @param {number} status 0 where there was no answer
   * @param {string} word @param {string} message the server's sentence
   * @param {number} [retryAfter] seconds
   */
  constructor(status, word, message, retryAfter = 5) {
    super(message);
    this.name = 'ApiError';
    this.status = status;
    this.word = word;
    this.retryAfter = retryAfter;
  }

  /** Whether the stream that was asked for is gone and another may be prepared. */
  get gone() {
    return this.status === 404 || this.status === 410;
  }
}

async function request(path, options = {}) {
  let response;
  try {
    response = await fetch(BASE + path, options);
  } catch (error) {
    if (error.name === 'AbortError') throw error;
    throw new ApiError(0, 'unreachable', error.message);
  }
  const body = await response.json().catch(() => null);
  if (!response.ok) {
    throw new ApiError(response.status, body?.error ?? 'failed',
      body?.message ?? `The server answered ${response.status}.`,
      retrySeconds(response.headers.get('Retry-After')));
  }
  return body;
}

/**
 * A part of the library, by title.
 * @param {{query?: string, offset?: number, limit?: number}} part
 * @param {AbortSignal} [signal]
 * @returns {Promise<{scanning: boolean, total: number, videos: object[]}>}
 * @throws {ApiError}
 */
export function listVideos({query = '', offset = 0, limit = 500}, signal) {
  const words = new URLSearchParams({offset: String(offset), limit: String(limit)});
  if (query) words.set('q', query);
  return request(`/videos?${words}`, {signal});
}

/** All that is known of a video. @param {number} id @returns {Promise<object>} @throws {ApiError} */
export function getVideo(id) {
  return request(`/videos/${id}`);
}

/**
 * The address of a picture of a video.
 * @param {{id: number, picture?: string}} video
 * @param {{at?: number, width?: number}} [what] second and width in pixels
 * @returns {string}
 */
export function pictureUrl(video, {at, width} = {}) {
  const words = new URLSearchParams();
  // The server cuts to the same grid; saying it here lets the browser's cache serve the neighbours.
  if (at !== undefined) words.set('at', String(Math.floor(at / 10) * 10));
  if (width !== undefined) words.set('width', String(width));
  const text = words.toString();
  return (video.picture ?? `${BASE}/videos/${video.id}/picture`) + (text && `?${text}`);
}

/** Prepares a stream. @param {object} wish @returns {Promise<object>} @throws {ApiError} */
export function openStream(wish) {
  return request('/streams', {
    method: 'POST', headers: {'Content-Type': 'application/json'}, body: JSON.stringify(wish),
  });
}

/** What is happening. @param {string} id @returns {Promise<object>} @throws {ApiError} */
export function getStream(id) {
  return request(`/streams/${encodeURIComponent(id)}`);
}

/**
 * Ends a stream. Works while the page is going away, and asks for no answer.
 * @param {string} id
 */
export function closeStream(id) {
  const path = `${BASE}/streams/${encodeURIComponent(id)}/close`;
  if (!navigator.sendBeacon?.(path)) {
    fetch(path, {method: 'POST', keepalive: true}).catch(() => {});
  }
}

/**
 * What the server says about an address that could not be loaded.
 * @param {string} url
 * @returns {Promise<?ApiError>} null where it says nothing
 */
export async function explainUrl(url) {
  if (!/^(https?:|\/)/.test(url)) return null;
  const stop = new AbortController();
  try {
    const response = await fetch(url, {signal: stop.signal});
    if (response.ok) return null;
    const body = await response.json();
    return new ApiError(response.status, body.error, body.message,
      retrySeconds(response.headers.get('Retry-After')));
  } catch (error) {
    return error instanceof TypeError ? new ApiError(0, 'unreachable', error.message) : null;
  } finally {
    stop.abort();
  }
}
