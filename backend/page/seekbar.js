// The seek bar: position, what is loaded, previews; dragged, clicked, or moved by keys.
import {element} from './dom.js';
import {formatTime, spokenTime} from './time.js';

const PREVIEW_WIDTH = 160;
// A pointer on its way across asks for no pictures.
const PREVIEW_DELAY_MS = 80;

/** The element `node` is the bar. */
export class SeekBar {
  /**
   * @param {object} setting
   * @param {(second: number) => string} setting.picture the address of a preview
   * @param {number} setting.shape the picture's width by its height
   * @param {(second: number) => void} setting.onSeek
   */
  constructor({picture, shape, onSeek}) {
    this.picture = picture;
    this.onSeek = onSeek;
    this.duration = NaN;
    this.time = 0;
    this.dragged = null;
    this.loaded = element('div', {class: 'seek-loaded'});
    this.done = element('div', {class: 'seek-done'});
    this.knob = element('div', {class: 'seek-knob'});
    this.track = element('div', {class: 'seek-track'}, this.loaded, this.done);
    this.image = element('img', {class: 'preview-picture', alt: '', width: PREVIEW_WIDTH,
      height: Math.round(PREVIEW_WIDTH / shape)});
    this.label = element('span', {class: 'preview-time'});
    this.preview = element('div', {class: 'preview', hidden: true}, this.image, this.label);
    this.image.addEventListener('error', () => this.image.classList.add('missing'));
    this.image.addEventListener('load', () => this.image.classList.remove('missing'));
    this.node = element('div', {
      class: 'seek', role: 'slider', tabIndex: 0, 'aria-label': 'Position', 'aria-valuemin': 0,
      on: {
        pointerdown: (event) => this.down(event),
        pointermove: (event) => this.move(event),
        pointerup: (event) => this.up(event),
        pointercancel: () => this.cancel(),
        pointerleave: () => this.dragged === null && this.hidePreview(),
      },
    }, this.track, this.knob, this.preview);
    this.update(0, NaN, []);
  }

  /**
   * @param {number} time @param {number} duration seconds
   * @param {Array<[number, number]>} spans what is loaded
   */
  update(time, duration, spans) {
    this.time = time;
    this.duration = duration;
    const known = duration > 0;
    const percent = (second) => `${known ? Math.min(100, second / duration * 100) : 0}%`;
    while (this.loaded.childElementCount > spans.length) this.loaded.lastChild.remove();
    while (this.loaded.childElementCount < spans.length) this.loaded.append(element('div'));
    spans.forEach(([begin, end], i) => {
      const {style} = this.loaded.children[i];
      style.left = percent(Math.max(0, begin));
      style.width = percent(end - Math.max(0, begin));
    });
    this.place(this.dragged ?? time);
  }

  place(second) {
    const share = this.duration > 0 ? Math.min(1, second / this.duration) : 0;
    this.done.style.transform = `scaleX(${share})`;
    this.knob.style.left = `${share * 100}%`;
    const whole = Math.floor(second);
    if (whole === this.said && this.duration === this.saidDuration) return;
    this.said = whole;
    this.saidDuration = this.duration;
    const {node} = this;
    node.setAttribute('aria-valuemax', String(Math.floor(this.duration) || 0));
    node.setAttribute('aria-valuenow', String(whole));
    node.setAttribute('aria-valuetext', `${spokenTime(second)} of ${spokenTime(this.duration)}`);
  }

  second(event) {
    const {left, width} = this.track.getBoundingClientRect();
    const share = Math.min(1, Math.max(0, (event.clientX - left) / width));
    return this.duration > 0 ? share * this.duration : 0;
  }

  down(event) {
    if (event.button !== 0 || !(this.duration > 0)) return;
    this.node.setPointerCapture(event.pointerId);
    this.dragged = this.second(event);
    this.place(this.dragged);
    this.showPreview(this.dragged);
  }

  move(event) {
    if (!(this.duration > 0)) return;
    const second = this.second(event);
    if (this.dragged !== null) {
      this.dragged = second;
      this.place(second);
    }
    this.showPreview(second);
  }

  up(event) {
    if (this.dragged === null) return;
    const second = this.second(event);
    this.cancel();
    this.place(second);
    if (event.pointerType !== 'mouse') this.hidePreview();
    this.onSeek(second);
  }

  cancel() {
    this.dragged = null;
    this.hidePreview();
  }

  showPreview(second) {
    this.preview.hidden = false;
    this.label.textContent = formatTime(second);
    const {width} = this.node.getBoundingClientRect();
    const half = this.preview.offsetWidth / 2;
    const centre = second / this.duration * width;
    this.preview.style.left = `${Math.max(half, Math.min(width - half, centre))}px`;
    const address = this.picture(second);
    if (address === this.wanted) return;
    this.wanted = address;
    clearTimeout(this.timer);
    this.timer = setTimeout(() => {
      this.image.src = address;
    }, this.image.src ? PREVIEW_DELAY_MS : 0);
  }

  hidePreview() {
    this.preview.hidden = true;
  }
}
