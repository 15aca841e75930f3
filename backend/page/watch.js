// Asks the server from time to time how a stream is, which also says that somebody still watches.
import {getStream} from './api.js';

const POLL_MS = 20000;
const WATCHED_POLL_MS = 2000;

/** Asks about one stream at a time. */
export class Watch {
  /** @param {(status: object) => void} tell @param {(error: object) => void} gone */
  constructor(tell, gone) {
    Object.assign(this, {tell, gone});
    this.stream = null;
    this.closely = false;
  }

  /** From now on about this one. @param {{id: string}} stream */
  start(stream) {
    this.stop();
    this.stream = stream;
    this.schedule();
  }

  /** About none. */
  stop() {
    clearTimeout(this.timer);
    this.stream = null;
  }

  /** More often while somebody looks. @param {boolean} closely */
  setClosely(closely) {
    this.closely = closely;
    if (this.stream) this.ask();
  }

  schedule() {
    clearTimeout(this.timer);
    this.timer = setTimeout(() => this.ask(), this.closely ? WATCHED_POLL_MS : POLL_MS);
  }

  async ask() {
    const {stream} = this;
    clearTimeout(this.timer);
    try {
      const status = await getStream(stream.id);
      if (stream !== this.stream) return;
      this.tell(status);
    } catch (error) {
      if (stream !== this.stream) return;
      if (error.gone) {
        this.gone(error);
        return;
      }
      // A server that does not answer for a moment is the engine's to notice.
    }
    if (stream === this.stream) this.schedule();
  }
}
