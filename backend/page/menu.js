// A menu that opens from a button, for mouse, touch and keyboard (ARIA's menu button pattern).
import {element, icon} from './dom.js';

/**
 * @typedef {object} Entry
 * @property {string} label
 * @property {string} [detail] shown behind the label
 * @property {boolean} [checked] for one of several choices
 * @property {() => void} [choose] what it does; the menu closes
 * @property {() => Entry[]} [open] the page that it leads to
 */

/** One button's menu. */
export class Menu {
  /**
   * @param {HTMLButtonElement} button
   * @param {string} label what the menu is called
   * @param {() => Entry[]} entries asked whenever it opens
   * @param {(open: boolean) => void} [onToggle]
   */
  constructor(button, label, entries, onToggle = () => {}) {
    Object.assign(this, {button, label, entries, onToggle});
    this.list = element('div', {class: 'menu', role: 'menu', 'aria-label': label, hidden: true,
      on: {keydown: (event) => this.key(event)}});
    this.holder = element('div', {class: 'menu-holder'}, this.list);
    button.setAttribute('aria-haspopup', 'menu');
    button.setAttribute('aria-expanded', 'false');
    button.replaceWith(this.holder);
    this.holder.append(button);
    button.addEventListener('click', () => (this.isOpen ? this.close() : this.show()));
    button.addEventListener('keydown', (event) => {
      if (event.key === 'ArrowDown' || event.key === 'ArrowUp') {
        event.preventDefault();
        event.stopPropagation();
        this.show();
      }
    });
    this.holder.addEventListener('focusout', (event) => {
      if (this.isOpen && event.relatedTarget && !this.holder.contains(event.relatedTarget)) this.close(false);
    });
    this.outside = (event) => !this.holder.contains(event.target) && this.close(false);
  }

  /** @returns {boolean} */
  get isOpen() {
    return !this.list.hidden;
  }

  show() {
    this.path = [];
    this.page(this.entries(), null);
    this.list.hidden = false;
    this.button.setAttribute('aria-expanded', 'true');
    document.addEventListener('pointerdown', this.outside);
    this.onToggle(true);
    this.focusFirst();
  }

  /** @param {boolean} [back] whether the button gets the focus */
  close(back = true) {
    if (!this.isOpen) return;
    this.list.hidden = true;
    this.button.setAttribute('aria-expanded', 'false');
    document.removeEventListener('pointerdown', this.outside);
    this.onToggle(false);
    if (back) this.button.focus();
  }

  page(entries, title) {
    const items = entries.map((entry) => this.item(entry));
    const back = title === null ? [] : [element('button', {type: 'button', class: 'menu-item menu-back',
      role: 'menuitem', tabIndex: -1, on: {click: () => this.up()}}, icon('back'), title)];
    this.list.replaceChildren(...back, ...items);
  }

  item(entry) {
    const choice = entry.checked !== undefined;
    return element('button', {
      type: 'button', class: 'menu-item', role: choice ? 'menuitemradio' : 'menuitem', tabIndex: -1,
      'aria-checked': choice ? entry.checked : undefined,
      'aria-haspopup': entry.open ? 'menu' : undefined,
      on: {click: () => this.choose(entry)},
    },
    element('span', {class: 'menu-mark'}, entry.checked ? icon('check') : null),
    element('span', {class: 'menu-label'}, entry.label),
    entry.detail ? element('span', {class: 'menu-detail'}, entry.detail) : null,
    entry.open ? icon('next') : null);
  }

  choose(entry) {
    if (entry.open) {
      this.path.push(entry);
      this.page(entry.open(), entry.label);
      this.focusFirst();
      return;
    }
    this.close();
    entry.choose();
  }

  up() {
    const left = this.path.pop();
    if (!left) {
      this.close();
      return;
    }
    const above = this.path.at(-1);
    this.page(above ? above.open() : this.entries(), above?.label ?? null);
    const items = this.items();
    (items.find((item) => item.textContent.startsWith(left.label)) ?? items[0])?.focus();
  }

  items() {
    return [...this.list.querySelectorAll('.menu-item')];
  }

  focusFirst() {
    const items = this.items();
    (items.find((item) => item.getAttribute('aria-checked') === 'true') ??
        items.find((item) => !item.classList.contains('menu-back')) ?? items[0])?.focus();
  }

  key(event) {
    const items = this.items();
    const at = items.indexOf(document.activeElement);
    const to = (index) => items[(index + items.length) % items.length]?.focus();
    const keys = {
      ArrowDown: () => to(at + 1),
      ArrowUp: () => to(at - 1),
      Home: () => to(0),
      End: () => to(items.length - 1),
      ArrowRight: () => items[at]?.getAttribute('aria-haspopup') && items[at].click(),
      ArrowLeft: () => this.up(),
      Escape: () => this.up(),
    };
    // Tab leaves; Enter and space press the item, which is a button.
    event.stopPropagation();
    if (event.key === 'Tab') {
      this.close();
    } else if (Object.hasOwn(keys, event.key)) {
      event.preventDefault();
      keys[event.key]();
    }
  }
}
