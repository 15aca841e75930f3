// One film being watched: its stream, the engine that plays it, and what happens when either fails.
import {ApiError, closeStream, explainUrl, openStream} from './api.js';
import {makeEngine} from './engines/choose.js';
import {firstSegment, wishFor} from './prepare.js';
import {afterRefusal, afterTrouble} from './recovery.js';
import {clampTime} from './time.js';
import {Watch} from './watch.js';
import {explain} from './words.js';

const STEADY_MS = 60000;
// A stream that another one of this page replaced ends within this time; meanwhile the new one is
// asked for again and again.
const REPLACED_MS = 3000;
const AGAIN_MS = 100;
// A transcoder that one's own last seek replaced ends within this time, mostly.
const FIRST_WAIT = 1;
const WAITED_MS = 20000;

/**
 * Events: "state" (opening, open, failed), "switch" (the picture is about to go), "stream" (another
 * one), "status" (`status` is fresh), "message" (detail: a sentence).
 */
export class Session extends EventTarget {
  /**
   * @param {HTMLVideoElement} video
   * @param {object} film as GET /videos/ID describes it
   * @param {Object<string, boolean>} can what the browser can play
   * @param {object} choice of kind, profile, audio, limit
   */
  constructor(video, film, can, choice) {
    super();
    Object.assign(this, {video, film, can, choice});
    this.state = 'opening';
    this.wantsPlay = true;
    this.stream = null;
    this.engine = null;
    this.status = null;
    /** @type {?{text: string, retry: string, seconds: number}} why the state is "failed" */
    this.failure = null;
    this.turn = 0;
    this.reopenedAt = -Infinity;
    this.waitedAt = -Infinity;
    this.replacedAt = -Infinity;
    this.watch = new Watch((status) => {
      this.status = status;
      this.emit('status');
    }, ({message}) => this.troubled({word: 'stream-ended', message}));
    this.at = 0;
    /** @type {?AbortController} of the request that has the first segment made */
    this.early = null;
  }

  /** @returns {number} the film's length, seconds */
  get duration() {
    return this.stream?.duration ?? this.film.duration ?? NaN;
  }

  /** @returns {number} the film's second that is shown, or is about to be */
  time() {
    return clampTime(this.engine ? this.engine.time() : this.at, this.duration);
  }

  /**
   * Prepares a stream and plays it. One that plays goes on until the new one is there.
   * @param {number} at second
   * @param {?Promise<object>} [prepared] a stream that was asked for already
   * @returns {Promise<boolean>} whether it plays now
   */
  async open(at, prepared = null) {
    const turn = ++this.turn;
    clearTimeout(this.countdown);
    this.at = clampTime(at, this.duration);
    this.failure = null;
    this.setState('opening');
    let stream;
    try {
      stream = await (prepared ?? openStream(wishFor(this.film.id, this.choice, this.can)));
    } catch (error) {
      if (turn === this.turn) return this.refused(error, this.engine !== null);
      return false;
    }
    if (turn !== this.turn) {
      closeStream(stream.id);
      return false;
    }
    // The old one went on meanwhile.
    if (this.engine) this.at = this.time();
    this.letGo();
    this.stream = stream;
    const early = firstSegment(stream, this.at);
    if (early) this.begin(early);
    this.emit('stream');
    return this.attach(turn);
  }

  // Has a segment made. Whether it can be made, the player's own request tells.
  begin(url) {
    this.early = new AbortController();
    fetch(url, {method: 'HEAD', cache: 'no-store', signal: this.early.signal}).catch(() => {});
  }

  async attach(turn) {
    const session = this;
    const {stream} = this;
    const setting = {
      video: this.video,
      stream,
      // Where the viewer wants to be once the engine's library is there.
      get at() { return session.at; },
      wantsPlay: () => this.wantsPlay,
      onTrouble: (trouble) => stream === this.stream && this.troubled(trouble),
    };
    try {
      const engine = await makeEngine(setting, () => turn === this.turn);
      if (!engine) return false;
      this.engine = engine;
    } catch (error) {
      if (turn === this.turn) this.fail(new ApiError(0, 'unreachable', error.message));
      return false;
    }
    this.setState('open');
    this.emit('engine');
    if (this.wantsPlay) this.play();
    this.watch.start(this.stream);
    return true;
  }

  /**
   * Another kind, profile, track: a new stream at the present second. Where it is refused the old one
   * goes on.
   * @param {object} changes members of the choice
   */
  async change(changes) {
    const before = this.choice;
    this.choice = {...before, ...changes};
    const opened = await this.open(this.time());
    if (!opened && this.kept) this.choice = before;
    this.kept = false;
  }

  async refused(error, hasOld) {
    if (!(error instanceof ApiError)) error = new ApiError(0, 'failed', String(error));
    const {text} = explain(error);
    const replaced = performance.now() - this.replacedAt < REPLACED_MS;
    switch (afterRefusal(error, {hasOld, replaced})) {
      case 'replace':
        this.at = this.time();
        this.letGo();
        this.replacedAt = performance.now();
        return this.again();
      case 'again':
        return this.again();
      case 'keep':
        this.kept = true;
        this.setState('open');
        this.emit('message', text);
        this.watch.start(this.stream);
        return false;
      default:
        this.fail(error);
        return false;
    }
  }

  // Asks once more, unless the viewer goes elsewhere meanwhile.
  async again() {
    const {turn} = this;
    await new Promise((resolve) => setTimeout(resolve, AGAIN_MS));
    return turn === this.turn && this.open(this.at);
  }

  async troubled({word, message, url}) {
    const {stream} = this;
    const found = url ? await explainUrl(url) : null;
    if (stream !== this.stream) return;
    const reopened = performance.now() - this.reopenedAt < STEADY_MS;
    // What can be loaded by now was refused a moment ago; the element calls that undecodable, too.
    const again = stream.seek === 'restart' && url && !reopened;
    const error = found ?? new ApiError(0, again ? 'stalled' : word, message);
    const at = this.time();
    switch (afterTrouble(error, {reopened, kind: this.stream.kind, chosen: this.choice.kind})) {
      case 'convert':
        this.choice = {...this.choice, kind: 'hls', profile: 'auto'};
        this.emit('message', 'The browser could not decode it; it is converted now.');
        this.letGo();
        await this.open(at);
        break;
      case 'reopen':
        this.reopenedAt = performance.now();
        this.letGo();
        await this.open(at);
        break;
      default:
        this.at = at;
        this.letGo();
        this.fail(error);
    }
  }

  fail(error) {
    const {text, retry} = explain(error);
    this.failure = {text, retry, word: error.word, seconds: 0};
    if (retry === 'soon') {
      const first = performance.now() - this.waitedAt > WAITED_MS;
      this.waitedAt = performance.now();
      this.countDown(first ? FIRST_WAIT : error.retryAfter ?? 5);
    }
    this.setState('failed');
  }

  countDown(seconds) {
    this.failure.seconds = seconds;
    this.countdown = setTimeout(() => {
      if (seconds > 1) this.countDown(seconds - 1);
      else this.open(this.at);
      this.emit('state');
    }, 1000);
  }

  /** Tries again, at once. */
  retry() {
    this.reopenedAt = -Infinity;
    this.open(this.at);
  }

  /** Lets it run. */
  async play() {
    this.wantsPlay = true;
    this.emit('state');
    try {
      await this.video.play();
    } catch (error) {
      // Browsers want a click before there is sound; anything else comes as an engine's trouble.
      if (error.name === 'NotAllowedError') {
        this.wantsPlay = false;
        this.emit('state');
      }
    }
  }

  /** Halts it. */
  pause() {
    this.wantsPlay = false;
    this.video.pause();
    this.emit('state');
  }

  /** @param {number} second of the film */
  seek(second) {
    this.at = clampTime(second, this.duration);
    // A transcoder whose first segment is still being waited for goes on for a while.
    this.early?.abort();
    this.engine?.seek(this.at);
  }

  /** Asks the server more often while somebody looks. @param {boolean} watched */
  setWatched(watched) {
    this.watch.setClosely(watched);
  }

  letGo() {
    this.watch.stop();
    this.early?.abort();
    if (this.engine) {
      this.emit('switch');
      this.engine.destroy();
    }
    if (this.stream) closeStream(this.stream.id);
    this.engine = null;
    this.stream = null;
    this.status = null;
  }

  /** Ends it all; open() begins anew. */
  close() {
    this.at = this.time();
    ++this.turn;
    clearTimeout(this.countdown);
    this.letGo();
  }

  setState(state) {
    this.state = state;
    this.emit('state');
  }

  emit(name, detail) {
    this.dispatchEvent(new CustomEvent(name, {detail}));
  }
}
