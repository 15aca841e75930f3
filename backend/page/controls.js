// The bar of controls below the picture.
import {audioEntries, checkedLabel, kindEntries, qualityEntries, rateEntries, subtitleEntries} from './choices.js';
import {element, iconButton, setIcon} from './dom.js';
import {Menu} from './menu.js';
import {SeekBar} from './seekbar.js';
import {formatTime} from './time.js';

/**
 * The bar. `does` are the player's actions: toggle, mute, setVolume(v), seek(s), fullscreen, picture
 * (picture-in-picture), panel, help, change(changes), chooseAudio(id), chooseSubtitle(subtitle),
 * setRate(r), preview(second), menuToggled(open). `now()` tells {film, choice, stream, subtitles,
 * subtitle, rate}.
 */
export class Controls {
  /** @param {object} does @param {() => object} now */
  constructor(does, now) {
    Object.assign(this, {does, now});
    const {film} = now();
    const shape = film.width > 0 && film.height > 0 ? film.width / film.height : 16 / 9;
    this.seek = new SeekBar({picture: does.preview, shape: Math.max(0.5, shape), onSeek: does.seek});
    this.time = element('span', {class: 'time'}, '0:00');
    this.length = element('span', {class: 'time'}, '0:00');
    this.play = iconButton('play', 'Play (k)', {on: {click: does.toggle}});
    this.mute = iconButton('loud', 'Sound off (m)', {on: {click: does.mute}});
    this.volume = element('input', {type: 'range', class: 'volume', min: 0, max: 1, step: 0.05,
      'aria-label': 'Volume', on: {input: () => does.setVolume(Number(this.volume.value))}});
    this.pip = iconButton('picture', 'Picture in picture', {class: 'icon-button wide-only',
      on: {click: does.picture}});
    this.pip.hidden = !document.pictureInPictureEnabled;
    this.full = iconButton('full', 'Full screen (f)', {on: {click: does.fullscreen}});
    const audio = iconButton('audio', 'Audio track (a)');
    const subtitle = iconButton('subtitle', 'Subtitles (c)');
    const settings = iconButton('settings', 'Settings');
    this.bar = element('div', {class: 'controls'},
      element('div', {class: 'seek-row'}, this.time, this.seek.node, this.length),
      element('div', {class: 'button-row'}, this.play,
        iconButton('rewind', '10 seconds back (j)', {on: {click: () => does.skip(-10)}}),
        iconButton('forward', '10 seconds on (l)', {on: {click: () => does.skip(10)}}),
        this.mute, this.volume, element('span', {class: 'spacer'}),
        audio, subtitle, settings, this.pip, this.full));
    // The menus put themselves around their buttons, which must be in the bar by then.
    this.menus = [
      new Menu(audio, 'Audio track', () => this.audio(), does.menuToggled),
      new Menu(subtitle, 'Subtitles', () => this.subtitles(), does.menuToggled),
      new Menu(settings, 'Settings', () => this.settings(), does.menuToggled),
    ];
    this.subtitleButton = subtitle;
  }

  audio() {
    const {film, stream} = this.now();
    const entries = audioEntries(film, stream, this.does.chooseAudio);
    return entries.length > 0 ? entries : [{label: 'This video has no sound', choose() {}}];
  }

  subtitles() {
    const {subtitles, subtitle} = this.now();
    return subtitleEntries(subtitles, subtitle, this.does.chooseSubtitle);
  }

  settings() {
    const quality = () => {
      const {film, choice, stream} = this.now();
      return qualityEntries(film, choice, stream, this.does.change);
    };
    const kind = () => {
      const {choice, stream} = this.now();
      return kindEntries(choice, stream, this.does.change);
    };
    const rate = () => rateEntries(this.now().rate, this.does.setRate);
    return [
      {label: 'Quality', detail: checkedLabel(quality()), open: quality},
      {label: 'Stream', detail: checkedLabel(kind()), open: kind},
      {label: 'Speed', detail: checkedLabel(rate()), open: rate},
      {label: 'What is happening', choose: this.does.panel},
      {label: 'Keys', choose: this.does.help},
    ];
  }

  /**
   * @param {{time: number, duration: number, spans: Array<[number, number]>, playing: boolean,
   *     muted: boolean, volume: number, full: boolean, subtitle: ?object}} state
   */
  update({time, duration, spans, playing, muted, volume, full, subtitle}) {
    this.seek.update(time, duration, spans);
    this.setText(this.time, formatTime(this.seek.dragged ?? time));
    this.setText(this.length, formatTime(duration));
    this.setButton(this.play, playing ? 'pause' : 'play', playing ? 'Pause (k)' : 'Play (k)');
    const silent = muted || volume === 0;
    this.setButton(this.mute, silent ? 'silent' : 'loud', silent ? 'Sound on (m)' : 'Sound off (m)');
    this.setButton(this.full, full ? 'window' : 'full', full ? 'Leave full screen (f)' : 'Full screen (f)');
    if (document.activeElement !== this.volume) this.volume.value = String(muted ? 0 : volume);
    this.subtitleButton.classList.toggle('on', Boolean(subtitle));
  }

  setText(node, text) {
    if (node.textContent !== text) node.textContent = text;
  }

  setButton(button, picture, label) {
    if (button.title === label) return;
    setIcon(button, picture);
    button.title = label;
    button.setAttribute('aria-label', label);
  }
}
