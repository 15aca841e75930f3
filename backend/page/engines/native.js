// What the browser plays by itself: a file, or HLS where it has no Media Source Extensions.
import {Engine} from './engine.js';

/** Plays `stream.url` as it is; the browser seeks in it. */
export class NativeEngine extends Engine {
  /** @param {import('./engine.js').Setting} setting */
  constructor(setting) {
    super(setting);
    this.video.src = this.stream.url;
    // Before anything is loaded this is where playback begins, so that nothing of the start is.
    if (this.at > 0) this.video.currentTime = this.at;
  }

  get hasSubtitles() {
    return this.stream.kind === 'hls';
  }

  /** @param {?{name: string, language: string}} subtitle to be loaded, or none */
  chooseSubtitle(subtitle) {
    if (!this.hasSubtitles) return;
    const chosen = subtitle && this.findTrack(subtitle);
    for (const track of this.video.textTracks) track.mode = track === chosen ? 'hidden' : 'disabled';
  }

  /** @param {{name: string, language: string}} subtitle @returns {Iterable<VTTCue>} */
  cuesOf(subtitle) {
    const track = this.findTrack(subtitle);
    // The element finds its tracks when it comes to them.
    if (track?.mode === 'disabled') track.mode = 'hidden';
    return track?.cues ?? [];
  }

  findTrack(subtitle) {
    const tracks = [...this.video.textTracks].filter(({kind}) => /^(subtitles|captions)$/.test(kind));
    return tracks.find(({label}) => subtitle.name && label === subtitle.name) ??
        tracks.find(({language}) => language && language === subtitle.language) ?? null;
  }
}
