// A byte stream, WebM or progressive, that is opened anew for every seek.
import {Engine} from './engine.js';

const LEAST = 0.5;
// Between streams of sound and picture there may be this much, seconds.
const GAP = 0.3;

/**
 * What to add to an element's time to get the film's. Streams begin either at the film's second or
 * at 0, and which of the two is the stream's and the browser's choice; the nearer one it is. Pure.
 * @param {number} begin the element's time of the first picture
 * @param {number} start the film's second that was asked for
 * @returns {number} 0 or `start`
 */
export function clockOffset(begin, start) {
  return Math.abs(begin - start) <= Math.abs(begin) ? 0 : start;
}

/**
 * Where a byte stream begins for a wanted second: at a whole one, with something left to play. Pure.
 * @param {number} wanted the film's second @param {number} duration seconds
 * @returns {number}
 */
export function startSecond(wanted, duration) {
  const last = duration > 0 ? Math.floor(duration - LEAST) : Infinity;
  return Math.max(0, Math.min(Math.round(wanted), last));
}

/**
 * The address of a byte stream from a second on. Pure.
 * @param {string} url @param {number} second a whole one
 * @returns {string}
 */
export function startUrl(url, second) {
  return `${url}${url.includes('?') ? '&' : '?'}start=${second}`;
}

/** Plays a stream whose answer to `&start=S` begins at that second. */
export class RestartEngine extends Engine {
  /** @param {import('./engine.js').Setting} setting */
  constructor(setting) {
    super(setting);
    this.known = false;
    for (const event of ['loadeddata', 'progress', 'timeupdate']) {
      this.listen(event, () => this.video.readyState >= 2 && this.findOffset());
    }
    this.open(this.at);
  }

  open(wanted) {
    const second = startSecond(wanted, this.stream.duration);
    this.known = false;
    this.at = second;
    // Until the stream says otherwise its clock is taken to be the film's.
    this.offset = 0;
    this.video.src = startUrl(this.stream.url, second);
    // Another source pauses the element.
    if (this.wantsPlay()) this.video.play().catch(() => {});
  }

  // The stream's clock is known from what is there of it first. Some begin to count from 0 although
  // the first picture is of a later second, and would wait in silence until they come to it.
  findOffset() {
    const {video} = this;
    if (this.known || video.buffered.length === 0) return;
    const begin = video.buffered.start(0);
    this.known = true;
    this.offset = clockOffset(begin, this.at);
    if (begin - video.currentTime > GAP) video.currentTime = begin;
  }

  filmTime(mediaTime) {
    return mediaTime + (this.known ? this.offset : clockOffset(mediaTime, this.at));
  }

  time() {
    return this.known && !this.video.seeking ? this.video.currentTime + this.offset : this.at;
  }

  seek(second) {
    const loaded = this.known &&
        this.buffered().some(([begin, end]) => begin <= second && second < end - 0.25);
    if (loaded) super.seek(second);
    else this.open(second);
  }

  buffered() {
    return this.known ? super.buffered() : [];
  }
}
