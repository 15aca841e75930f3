// The library: what there is, what was begun, and the search.
import {ApiError, listVideos} from './api.js';
import {videoCard} from './card.js';
import {element} from './dom.js';
import {Pictures} from './pictures.js';
import {dropEarly, firstChoice, prepareEarly, warmUp} from './prepare.js';
import {explain} from './words.js';

const PART = 120;
const TYPING_MS = 150;
const SCAN_POLL_MS = 2000;
const HOVER_MS = 80;
const MOST_BEGUN = 12;

/** How many there are, in words. Pure. @param {number} count @param {string} query @returns {string} */
export function countText(count, query) {
  const videos = count === 1 ? '1 video' : `${count} videos`;
  return query ? `${videos} for “${query}”` : videos;
}

/** Shows the library in `node`. */
export class Library {
  /**
   * @param {{resume: import('./resume.js').ResumeStore, settings: import('./settings.js').Settings}}
   *     surroundings
   */
  constructor({resume, settings}) {
    this.resume = resume;
    this.settings = settings;
    this.pictures = new Pictures();
    this.query = '';
    this.videos = [];
    this.total = 0;
    this.search = element('input', {type: 'search', class: 'search', placeholder: 'Search',
      'aria-label': 'Search the library', autocomplete: 'off', spellcheck: false,
      on: {input: () => this.typed()}});
    this.count = element('p', {class: 'count', role: 'status'});
    this.begun = element('ul', {class: 'cards'});
    this.begunPart = element('section', {hidden: true, 'aria-labelledby': 'begun-title'},
      element('h2', {id: 'begun-title'}, 'Continue watching'), this.begun);
    this.cards = element('ul', {class: 'cards'});
    this.state = element('div', {class: 'library-state', hidden: true});
    this.end = element('div', {class: 'cards-end'});
    this.node = element('main', {class: 'library'},
      element('header', {class: 'library-head'}, element('h1', {}, 'Videos'), this.search),
      this.begunPart,
      element('section', {'aria-labelledby': 'all-title'},
        element('h2', {id: 'all-title', class: 'all-title'}, 'All videos', this.count), this.cards, this.state, this.end));
    this.watchCards();
    this.observer = new IntersectionObserver(([{isIntersecting}]) => isIntersecting && this.more(),
      {rootMargin: '600px'});
  }

  // A card under the pointer is likely to be chosen: what the player asks first is asked now. With a
  // mouse a pressed button is as good as a click; a finger may only be scrolling.
  watchCards() {
    const idOf = (event) => Number(event.target.closest?.('a[data-video]')?.dataset.video) || null;
    this.node.addEventListener('pointerover', (event) => {
      const id = idOf(event);
      clearTimeout(this.hover);
      if (id) this.hover = setTimeout(() => warmUp(id), HOVER_MS);
    });
    this.node.addEventListener('focusin', (event) => {
      const id = idOf(event);
      if (id) warmUp(id);
    });
    this.node.addEventListener('pointerdown', (event) => {
      const id = idOf(event);
      if (!id) return;
      const plain = event.button === 0 && !event.ctrlKey && !event.metaKey && !event.shiftKey && !event.altKey;
      if (event.pointerType === 'mouse' && plain) prepareEarly(id, firstChoice(this.settings.get('limit')));
      else warmUp(id);
    });
    this.node.addEventListener('dragstart', dropEarly);
  }

  /** Shows it, fresh. */
  open() {
    this.pictures.resume();
    this.showBegun();
    this.load();
    this.observer.observe(this.end);
  }

  /** Leaves it; what was loaded stays. */
  close() {
    this.pictures.pause();
    clearTimeout(this.timer);
    clearTimeout(this.typing);
    clearTimeout(this.hover);
    this.stop?.abort();
    this.observer.disconnect();
  }

  typed() {
    clearTimeout(this.typing);
    this.typing = setTimeout(() => {
      this.query = this.search.value.trim();
      this.showBegun();
      this.load();
    }, TYPING_MS);
  }

  /** Loads the first part again, or what was seen of it. */
  async load() {
    clearTimeout(this.timer);
    this.stop?.abort();
    this.stop = new AbortController();
    const {signal} = this.stop;
    this.loading = true;
    if (this.videos.length === 0) this.show('waiting', 'Looking into the library…');
    try {
      const answer = await listVideos({query: this.query, limit: Math.min(500, Math.max(PART, this.videos.length))}, signal);
      this.videos = answer.videos;
      this.total = answer.total;
      this.draw(answer.scanning);
      // While it is being looked through there is more with every look.
      if (answer.scanning) this.timer = setTimeout(() => this.load(), SCAN_POLL_MS);
    } catch (error) {
      if (error.name !== 'AbortError') this.failed(error);
    } finally {
      if (!signal.aborted) this.loading = false;
    }
  }

  async more() {
    if (this.loading || this.videos.length === 0 || this.videos.length >= this.total) return;
    this.loading = true;
    const {signal} = this.stop;
    try {
      const {videos} = await listVideos({query: this.query, offset: this.videos.length, limit: PART}, signal);
      this.videos.push(...videos);
      this.cards.append(...videos.map((video) => videoCard(video, this.resume.entry(video.id), this.pictures)));
      if (videos.length === 0) this.total = this.videos.length;
    } catch (error) {
      if (error.name !== 'AbortError') this.failed(error);
    } finally {
      if (!signal.aborted) this.loading = false;
    }
    this.observer.unobserve(this.end);
    this.observer.observe(this.end);
  }

  draw(scanning) {
    const drawn = JSON.stringify([this.videos, this.videos.map(({id}) => this.resume.entry(id))]);
    if (drawn !== this.drawn) {
      this.drawn = drawn;
      this.keepFocus(() => this.cards.replaceChildren(
        ...this.videos.map((video) => videoCard(video, this.resume.entry(video.id), this.pictures))));
      this.pictures.prune();
    }
    this.count.textContent = this.total > 0 ? countText(this.total, this.query) : '';
    if (this.videos.length > 0) this.show(scanning ? 'scanning' : '', scanning ? 'Still looking for videos…' : '');
    else if (scanning) this.show('waiting', 'Looking for videos…');
    else if (this.query) this.show('empty', `No title holds “${this.query}”.`);
    else this.show('empty', 'There are no videos in the folders that are served.');
  }

  keepFocus(change) {
    const id = document.activeElement?.dataset?.video;
    const inside = this.cards.contains(document.activeElement);
    change();
    if (inside && id) this.cards.querySelector(`[data-video="${id}"]`)?.focus();
  }

  async showBegun() {
    const entries = this.query ? [] : this.resume.begun().slice(0, MOST_BEGUN);
    const found = await Promise.all(entries.map(async (entry) => {
      try {
        return {entry, video: (await warmUp(entry.id)).film};
      } catch (error) {
        if (error instanceof ApiError && error.word === 'no-such-video') this.resume.forget(entry.id);
        return null;
      }
    }));
    const cards = found.filter(Boolean).map(({entry, video}) => videoCard(video, entry, this.pictures));
    this.begun.replaceChildren(...cards);
    this.pictures.prune();
    this.begunPart.hidden = cards.length === 0 || this.query !== '';
  }

  failed(error) {
    const {text, retry} = explain(error);
    const again = retry === 'no' ? null : element('button',
      {type: 'button', class: 'text-button primary', on: {click: () => this.load()}}, 'Try again');
    this.show('failed', text, again);
  }

  show(state, sentence, button = null) {
    this.state.hidden = !sentence;
    this.state.dataset.state = state;
    this.state.setAttribute('role', state === 'failed' ? 'alert' : 'status');
    this.state.replaceChildren(
      ...(state === 'waiting' || state === 'scanning' ? [element('div', {class: 'spinner small'})] : []),
      element('p', {}, sentence), ...(button ? [button] : []));
  }
}
