// What the player needs of a way to play a stream. Each engine plays one stream in one <video>, from
// its making until destroy().
import {spansOf} from '../time.js';

/**
 * @typedef {object} Setting what an engine is made for
 * @property {HTMLVideoElement} video
 * @property {object} stream as the server prepared it
 * @property {number} at the film's second at which to begin
 * @property {() => boolean} wantsPlay whether the viewer wants the film to run
 * @property {(trouble: {word: string, message: string, url?: string}) => void} onTrouble the stream
 *     cannot go on; `url` is what could not be loaded. Called at most once.
 */

/** Times pass through here: a stream's clock need not be the film's. */
export class Engine {
  /** @param {Setting} setting */
  constructor({video, stream, at, wantsPlay, onTrouble}) {
    /** @type {HTMLVideoElement} */
    this.video = video;
    this.stream = stream;
    this.at = at;
    this.wantsPlay = wantsPlay;
    /** Film second = the element's time + offset. */
    this.offset = 0;
    this.listeners = new AbortController();
    this.report = onTrouble;
    this.listen('error', () => this.elementFailed());
  }

  /** Listens at the element until destroy(). @param {string} event @param {Function} listener */
  listen(event, listener) {
    this.video.addEventListener(event, listener, {signal: this.listeners.signal});
  }

  /** @param {string} word @param {string} message @param {string} [url] */
  trouble(word, message, url) {
    if (this.listeners.signal.aborted || !this.report) return;
    const report = this.report;
    this.report = null;
    report({word, message, url});
  }

  elementFailed() {
    const {error} = this.video;
    if (!error) return;
    const undecodable = error.code === MediaError.MEDIA_ERR_DECODE ||
        error.code === MediaError.MEDIA_ERR_SRC_NOT_SUPPORTED;
    this.trouble(undecodable ? 'not-decodable' : 'stalled', error.message, this.video.src);
  }

  /** @returns {number} the film's second that is shown */
  time() {
    return this.video.readyState > 0 ? this.video.currentTime + this.offset : this.at;
  }

  /** @param {number} mediaTime of a presented frame @returns {number} the film's second */
  filmTime(mediaTime) {
    return mediaTime + this.offset;
  }

  /** Goes elsewhere. @param {number} second of the film */
  seek(second) {
    this.at = second;
    this.video.currentTime = second - this.offset;
  }

  /** @returns {Array<[number, number]>} what is loaded, in seconds of the film */
  buffered() {
    return spansOf(this.video.buffered, this.offset);
  }

  /** Whether the stream brings its subtitles itself. @returns {boolean} */
  get hasSubtitles() {
    return false;
  }

  /** Lets the element go. What was played stays on the screen only as long as the caller sees to it. */
  destroy() {
    this.listeners.abort();
    this.video.removeAttribute('src');
    this.video.load();
  }
}
