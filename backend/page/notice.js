// What lies over the picture while there is none: waiting, a start button, or what went wrong.
import {element, icon} from './dom.js';

/** The element `node` shows one of them, or nothing. */
export class Notice {
  /** @param {{play: () => void, retry: () => void, leave: () => void}} does */
  constructor(does) {
    this.spinner = element('div', {class: 'spinner', hidden: true});
    this.start = element('button', {type: 'button', class: 'start', 'aria-label': 'Play', hidden: true,
      on: {click: does.play}}, icon('play'));
    this.text = element('p', {class: 'failure-text'});
    this.count = element('p', {class: 'failure-count'});
    this.again = element('button', {type: 'button', class: 'text-button primary', on: {click: does.retry}},
      'Try again');
    this.failure = element('div', {class: 'failure', role: 'alert', hidden: true}, this.text, this.count,
      element('div', {class: 'failure-buttons'}, this.again,
        element('button', {type: 'button', class: 'text-button', on: {click: does.leave}}, 'Back to the library')));
    this.node = element('div', {class: 'notice'}, this.spinner, this.start, this.failure);
  }

  /**
   * @param {{failure: ?object, waiting: boolean, blocked: boolean}} state `blocked`: the browser
   *     wants a click first
   */
  update({failure, waiting, blocked}) {
    this.failure.hidden = !failure;
    this.spinner.hidden = Boolean(failure) || !waiting;
    this.start.hidden = Boolean(failure) || waiting || !blocked;
    if (!failure) return;
    if (this.text.textContent !== failure.text) this.text.textContent = failure.text;
    this.count.textContent = failure.seconds > 0 ? `Trying again in ${failure.seconds} s.` : '';
    this.again.hidden = failure.retry === 'no';
  }
}
