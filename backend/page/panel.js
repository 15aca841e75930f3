// "What is happening": where the stream comes from and how quickly.
import {element} from './dom.js';
import {secondsAhead} from './time.js';
import {KINDS} from './words.js';

/**
 * The panel's rows. Pure.
 * @param {object} facts
 * @param {?object} facts.stream as the server prepared it
 * @param {?object} facts.status as GET /streams/ID last answered
 * @param {string} [facts.profile] its label
 * @param {Array<[number, number]>} facts.spans what is loaded
 * @param {number} facts.time the film's second
 * @param {?number} facts.firstPictureMs
 * @param {?number} facts.lastSeekMs
 * @param {?{totalVideoFrames: number, droppedVideoFrames: number}} facts.frames
 * @param {number} [facts.width] @param {number} [facts.height] of the picture
 * @returns {Array<[string, string]>} what and how much
 */
export function panelRows({stream, status, profile, spans, time, firstPictureMs, lastSeekMs, frames,
  width, height}) {
  const rows = [];
  if (stream) {
    rows.push(['Stream', KINDS[stream.kind] ?? stream.kind]);
    if (stream.profile) rows.push(['Quality', profile ?? stream.profile]);
  }
  if (width > 0) rows.push(['Picture', `${width} × ${height}`]);
  if (stream && stream.kind !== 'file') rows.push(['Converter', converter(status)]);
  rows.push(['Loaded ahead', `${secondsAhead(spans, time).toFixed(1)} s`]);
  rows.push(['First picture after', milliseconds(firstPictureMs)]);
  rows.push(['Last seek took', milliseconds(lastSeekMs)]);
  if (frames) rows.push(['Dropped frames', `${frames.droppedVideoFrames} of ${frames.totalVideoFrames}`]);
  return rows;
}

function converter(status) {
  if (!status) return 'not known yet';
  if (status.running === false) return 'not running';
  return typeof status.speed === 'number' ? `${status.speed.toFixed(1)}× as fast as one watches` : 'running';
}

function milliseconds(value) {
  return typeof value === 'number' ? `${Math.round(value)} ms` : 'not measured yet';
}

/** The panel; `node` is its element, `facts` is asked while it is shown. */
export class Panel {
  /** @param {() => object} facts as panelRows() takes them @param {() => void} onClose */
  constructor(facts, onClose) {
    this.facts = facts;
    this.rows = element('dl', {class: 'panel-rows'});
    this.why = element('ul', {class: 'panel-why'});
    this.node = element('section', {class: 'panel', 'aria-label': 'What is happening', hidden: true},
      element('header', {class: 'panel-head'}, element('h2', {}, 'What is happening'),
        element('button', {type: 'button', class: 'text-button', on: {click: onClose}}, 'Close')),
      this.why, this.rows);
  }

  /** @returns {boolean} */
  get isOpen() {
    return !this.node.hidden;
  }

  /** @param {boolean} open */
  show(open) {
    this.node.hidden = !open;
    clearInterval(this.timer);
    if (!open) return;
    this.update();
    this.timer = setInterval(() => this.update(), 500);
  }

  update() {
    const facts = this.facts();
    const rows = panelRows(facts);
    const why = facts.stream?.why ?? [];
    if (this.why.children.length !== why.length || [...this.why.children].some((li, i) => li.textContent !== why[i])) {
      this.why.replaceChildren(...why.map((sentence) => element('li', {}, sentence)));
    }
    if (this.rows.children.length !== rows.length * 2) {
      this.rows.replaceChildren(...rows.flatMap(() => [element('dt'), element('dd')]));
    }
    rows.forEach(([what, much], i) => {
      this.rows.children[2 * i].textContent = what;
      this.rows.children[2 * i + 1].textContent = much;
    });
  }

  destroy() {
    clearInterval(this.timer);
  }
}
