// The player: one film, its session, and everything around the picture.
import {pictureUrl} from './api.js';
import {Captions} from './captions.js';
import {nextRate, rateName} from './choices.js';
import {Controls} from './controls.js';
import {helpDialog} from './dialog.js';
import {element, icon} from './dom.js';
import {focusKind, keyAction} from './keys.js';
import {Knobs} from './knobs.js';
import {Measure} from './measure.js';
import {Notice} from './notice.js';
import {Panel} from './panel.js';
import {firstChoice} from './prepare.js';
import {Seeker} from './seeker.js';
import {Session} from './session.js';
import {Idle, Still, watchPointer} from './stage.js';
import {formatTime} from './time.js';
import {audioName, subtitleName} from './words.js';

const KEEP_MS = 5000;

/** Shows a film in `node` until close(). */
export class Player {
  /**
   * @param {object} film @param {Object<string, boolean>} can
   * @param {{settings: import('./settings.js').Settings, resume: import('./resume.js').ResumeStore,
   *     say: (sentence: string) => void, leave: () => void}} surroundings
   */
  constructor(film, can, {settings, resume, say, leave}) {
    Object.assign(this, {film, settings, resume, say, leave});
    this.subtitle = null;
    this.listeners = new AbortController();
    this.video = element('video', {playsInline: true, preload: 'auto', 'aria-label': film.title});
    this.knobs = new Knobs(this.video, settings);
    this.session = new Session(this.video, film, can, firstChoice(settings.get('limit')));
    this.measure = new Measure(this.video,
      (mediaTime) => this.session.engine?.filmTime(mediaTime) ?? mediaTime);
    this.seeker = new Seeker((second) => this.goTo(second));
    this.build();
    this.watch();
  }

  build() {
    const {film} = this;
    const canvas = element('canvas', {class: 'still', hidden: true});
    const captions = element('div', {class: 'captions'});
    const click = element('div', {class: 'click-area'});
    this.notice = new Notice({play: () => this.session.play(), retry: () => this.session.retry(),
      leave: this.leave});
    this.controls = new Controls(this.actions(), () => this.now());
    this.panel = new Panel(() => this.facts(), () => this.togglePanel());
    this.help = helpDialog();
    const head = element('header', {class: 'player-head'},
      element('a', {class: 'icon-button', href: '#/', 'aria-label': 'Back to the library', title: 'Back to the library'},
        icon('back')),
      element('h1', {}, film.title));
    this.node = element('section', {class: 'player', 'aria-label': 'Player'},
      this.video, canvas, captions, click, this.notice.node, head, this.panel.node, this.controls.bar, this.help);
    this.still = new Still(this.video, canvas);
    this.captions = new Captions(this.video, captions, () => this.session.time());
    this.idle = new Idle(this.node, () => this.session.wantsPlay && this.session.state !== 'failed' && !this.panel.isOpen);
    watchPointer(click, {toggle: () => this.toggle(), fullscreen: () => this.fullscreen(),
      skip: (by) => this.skip(by), idle: this.idle});
  }

  actions() {
    return {
      toggle: () => this.toggle(),
      mute: () => this.knobs.mute(),
      setVolume: (volume) => this.knobs.setVolume(volume),
      seek: (second) => this.seeker.to(second),
      skip: (by) => this.skip(by),
      fullscreen: () => this.fullscreen(),
      picture: () => this.pictureInPicture(),
      panel: () => this.togglePanel(),
      help: () => this.help.showModal(),
      change: (changes) => this.change(changes),
      chooseAudio: (audio) => this.change({audio}),
      chooseSubtitle: (subtitle) => this.chooseSubtitle(subtitle),
      setRate: (rate) => this.knobs.setRate(rate),
      preview: (second) => pictureUrl(this.film, {at: second, width: 160}),
      menuToggled: () => this.idle.wake(),
    };
  }

  watch() {
    const {session, video} = this;
    const on = (target, names, does) => names.split(' ').forEach((name) =>
      target.addEventListener(name, does, {signal: this.listeners.signal}));
    on(session, 'state', () => this.update());
    on(session, 'switch', () => this.still.take());
    on(session, 'engine', () => this.chooseSubtitle(this.sameSubtitle(), false));
    on(session, 'message', ({detail}) => this.say(detail));
    on(video, 'timeupdate progress seeking seeked volumechange waiting playing canplay pause ended loadedmetadata',
      () => this.update());
    on(video, 'ended', () => this.ended());
    on(document, 'keydown', (event) => this.key(event));
    on(document, 'fullscreenchange', () => this.update());
    on(window, 'pagehide', () => this.suspend());
    on(window, 'pageshow', (event) => event.persisted && session.open(session.at));
    this.keeper = setInterval(() => this.keep(), KEEP_MS);
  }

  /**
   * Begins.
   * @param {{clicked: number, prepared: ?Promise<object>}} how `clicked`: ms on performance.now()'s
   *     clock; a stream that was asked for already
   */
  open({clicked, prepared}) {
    this.measure.started(clicked);
    return this.session.open(this.resume.position(this.film.id), prepared);
  }

  now() {
    const {film, session, subtitle} = this;
    return {film, choice: session.choice, stream: session.stream, subtitles: this.subtitles(), subtitle,
      rate: this.knobs.rate};
  }

  facts() {
    const {session, measure, video} = this;
    const {stream} = session;
    const profiles = this.film.profiles?.[stream?.kind] ?? [];
    return {
      stream, status: session.status, spans: session.engine?.buffered() ?? [], time: session.time(),
      profile: profiles.find(({key}) => key === stream?.profile)?.label,
      firstPictureMs: measure.firstPictureMs, lastSeekMs: measure.lastSeekMs,
      frames: video.getVideoPlaybackQuality?.() ?? null, width: video.videoWidth, height: video.videoHeight,
    };
  }

  update() {
    const {session, video} = this;
    const running = session.wantsPlay && session.state !== 'failed';
    const waiting = session.state !== 'failed' &&
        (video.readyState < 2 || video.seeking || (running && video.readyState < 3));
    this.controls.update({time: this.seeker.target ?? session.time(), duration: session.duration,
      spans: session.engine?.buffered() ?? [], playing: running && !video.ended, muted: video.muted,
      volume: video.volume, full: document.fullscreenElement === this.node, subtitle: this.subtitle});
    this.notice.update({failure: session.failure, waiting, blocked: !session.wantsPlay && video.played.length === 0});
    if (!running) this.idle.wake();
  }

  change(changes) {
    if (changes.limit !== undefined) this.settings.set('limit', changes.limit);
    // Browsers play a file with one of its audio tracks only.
    const other = changes.audio !== undefined && this.session.choice.kind === 'file';
    return this.session.change(other ? {...changes, kind: 'auto'} : changes);
  }

  toggle() {
    const {session, video} = this;
    if (session.state === 'failed') session.retry();
    else if (video.ended) this.again();
    else if (session.wantsPlay) session.pause();
    else session.play();
  }

  again() {
    this.session.wantsPlay = true;
    this.seeker.to(0);
  }

  goTo(second) {
    this.session.seek(second);
    if (this.session.state === 'failed') {
      this.session.retry();
      return;
    }
    this.measure.sought(this.session.at);
    if (this.session.wantsPlay) this.session.play();
    this.update();
  }

  skip(by) {
    this.seeker.to(Math.min(this.session.duration, (this.seeker.target ?? this.session.time()) + by));
    this.idle.wake();
  }

  fullscreen() {
    if (document.fullscreenElement) document.exitFullscreen();
    else if (this.node.requestFullscreen) this.node.requestFullscreen().catch(() => {});
    else this.video.webkitEnterFullscreen?.();
  }

  pictureInPicture() {
    if (document.pictureInPictureElement) document.exitPictureInPicture();
    else this.video.requestPictureInPicture?.().catch(() => {});
  }

  togglePanel() {
    this.panel.show(!this.panel.isOpen);
    this.session.setWatched(this.panel.isOpen);
  }

  subtitles() {
    const {stream} = this.session;
    return stream?.subtitles?.length > 0 ? stream.subtitles : this.film.subtitles ?? [];
  }

  // The subtitle of the film before, of a stream before, or of the language that was last chosen.
  sameSubtitle() {
    const all = this.subtitles();
    if (this.subtitle) return all.find(({id}) => id === this.subtitle.id) ?? null;
    const language = this.settings.get('subtitle');
    return language ? all.find((subtitle) => (subtitle.language || subtitle.name) === language) ?? null : null;
  }

  chooseSubtitle(subtitle, keep = true) {
    this.subtitle = subtitle;
    if (keep) this.settings.set('subtitle', subtitle ? subtitle.language || subtitle.name || '' : '');
    this.captions.choose(this.session.engine, subtitle);
    this.update();
  }

  nextSubtitle() {
    const all = this.subtitles();
    const at = all.findIndex(({id}) => id === this.subtitle?.id);
    const next = all[at + 1] ?? null;
    this.chooseSubtitle(next);
    this.say(next ? `Subtitles: ${subtitleName(next, at + 1)}` : 'Subtitles: none');
  }

  nextAudio() {
    const tracks = this.film.audio ?? [];
    if (tracks.length < 2) return;
    const id = String(this.session.stream?.audio ?? tracks[0].id);
    const next = (tracks.findIndex((track) => String(track.id) === id) + 1) % tracks.length;
    this.say(`Audio: ${audioName(tracks[next], next)}`);
    this.change({audio: tracks[next].id});
  }

  key(event) {
    const does = keyAction(event, this.help.open ? 'textbox' : focusKind(document.activeElement));
    if (!does) return;
    event.preventDefault();
    const {session, video} = this;
    const actions = {
      toggle: () => this.toggle(),
      skip: () => this.skip(does.by),
      share: () => this.seeker.to(session.duration * does.to),
      louder: () => {
        this.knobs.setVolume(video.volume + does.by);
        this.say(`Volume ${Math.round(video.volume * 100)} %`);
      },
      mute: () => this.knobs.mute(),
      fullscreen: () => this.fullscreen(),
      subtitle: () => this.nextSubtitle(),
      audio: () => this.nextAudio(),
      panel: () => this.togglePanel(),
      rate: () => {
        this.knobs.setRate(nextRate(this.knobs.rate, does.by));
        this.say(`Speed: ${rateName(this.knobs.rate)}`);
      },
      help: () => this.help.showModal(),
    };
    actions[does.action]();
  }

  keep() {
    const {session} = this;
    if (session.engine && this.video.played.length > 0) {
      this.resume.keep(this.film.id, session.time(), session.duration);
    }
  }

  ended() {
    this.session.wantsPlay = false;
    this.resume.forget(this.film.id);
    this.say(`The film is over, after ${formatTime(this.session.duration)}.`);
    this.update();
  }

  suspend() {
    this.keep();
    this.session.close();
  }

  /** Ends everything; the node may go. */
  close() {
    this.suspend();
    clearInterval(this.keeper);
    this.listeners.abort();
    this.seeker.cancel();
    this.idle.destroy();
    this.panel.destroy();
    this.captions.clear();
    if (document.fullscreenElement === this.node) document.exitFullscreen();
  }
}
