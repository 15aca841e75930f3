// The chosen subtitle, drawn above the controls. Where its cues come from is the engine's matter; when
// each is shown goes by the film's time, since an element's clock may run otherwise.
import {element} from './dom.js';

const LOOK_MS = 100;

/**
 * The cues of a second. Pure.
 * @param {Iterable<{startTime: number, endTime: number}>} cues @param {number} time seconds
 * @returns {object[]} by start
 */
export function cuesAt(cues, time) {
  return [...cues].filter(({startTime, endTime}) => startTime <= time && time < endTime)
    .sort((a, b) => a.startTime - b.startTime);
}

/** Draws the cues of one subtitle at a time. */
export class Captions {
  /**
   * @param {HTMLVideoElement} video
   * @param {HTMLElement} box where the text goes
   * @param {() => number} time the film's second
   */
  constructor(video, box, time) {
    Object.assign(this, {video, box, time});
    this.shown = [];
    // Where the system's own player takes over, it draws the text.
    video.addEventListener('webkitbeginfullscreen', () => this.setMode('showing'));
    video.addEventListener('webkitendfullscreen', () => this.setMode('hidden'));
  }

  /**
   * Shows a subtitle, or none.
   * @param {?import('./engines/engine.js').Engine} engine which plays
   * @param {?{id: string, name: string, language: string, url?: string}} subtitle
   */
  choose(engine, subtitle) {
    this.clear();
    engine?.chooseSubtitle?.(subtitle);
    if (!engine || !subtitle) return;
    if (engine.hasSubtitles) {
      this.cues = () => engine.cuesOf(subtitle);
    } else if (subtitle.url) {
      this.own = element('track', {kind: 'subtitles', src: subtitle.url, label: subtitle.name ?? '',
        srclang: subtitle.language ?? ''});
      this.video.append(this.own);
      this.setMode('hidden');
      this.cues = () => this.own.track.cues ?? [];
    }
    this.timer = setInterval(() => this.draw(), LOOK_MS);
  }

  draw() {
    const cues = cuesAt(this.cues(), this.time());
    if (cues.length === this.shown.length && cues.every((cue, i) => cue === this.shown[i])) return;
    this.shown = cues;
    this.box.replaceChildren(...cues.map((cue) => {
      const text = element('span', {class: 'cue-text'}, cue.getCueAsHTML());
      const high = !cue.snapToLines && typeof cue.line === 'number' && cue.line < 50;
      return element('p', {class: high ? 'cue cue-high' : 'cue'}, text);
    }));
  }

  setMode(mode) {
    if (this.own) this.own.track.mode = mode;
  }

  /** Shows none. */
  clear() {
    clearInterval(this.timer);
    this.own?.remove();
    this.own = null;
    this.cues = () => [];
    this.shown = [];
    this.box.replaceChildren();
  }
}
