// HLS by hls.js.
import {Engine} from './engine.js';
import {loadScript} from './scripts.js';

// A segment that is still being made is waited for, up to a minute; trying again sooner would only
// ask the same again.
const PATIENCE = {
  maxTimeToFirstByteMs: 70000,
  maxLoadTimeMs: 120000,
  timeoutRetry: {maxNumRetry: 1, retryDelayMs: 0, maxRetryDelayMs: 0},
  errorRetry: {maxNumRetry: 2, retryDelayMs: 500, maxRetryDelayMs: 4000},
};

function configuration(at) {
  return {
    startPosition: at,
    workerPath: new URL('../lib/hls.worker.js', import.meta.url).pathname,
    lowLatencyMode: false,
    // The first pictures of a segment are shown while its last ones are still being made.
    progressive: true,
    fetchSetup: (context, init) => {
      init.headers.set('Prefer', 'unfinished');
      return new Request(context.url, init);
    },
    startFragPrefetch: true,
    testBandwidth: false,
    maxBufferLength: 30,
    maxMaxBufferLength: 60,
    backBufferLength: 60,
    maxBufferHole: 0.5,
    nudgeMaxRetry: 5,
    // The page draws the cues itself, above its controls; hls.js's own tracks would need a
    // document made of a data: address, which the page's policy forbids.
    renderTextTracksNatively: false,
    enableCEA708Captions: false,
    manifestLoadPolicy: {default: PATIENCE},
    playlistLoadPolicy: {default: PATIENCE},
    fragLoadPolicy: {default: PATIENCE},
  };
}

/** Loads hls.js ahead of need. @returns {Promise<object>} its class */
export async function loadHls() {
  await loadScript('lib/hls.min.js');
  return globalThis.Hls;
}

/** Plays an HLS presentation through Media Source Extensions. */
export class HlsEngine extends Engine {
  /** @param {import('./engine.js').Setting} setting @param {object} Hls the library's class */
  constructor(setting, Hls) {
    super(setting);
    this.Hls = Hls;
    this.recovered = false;
    this.hls = new Hls(configuration(this.at));
    this.cues = new Map();
    this.wanted = null;
    this.hls.on(Hls.Events.CUES_PARSED, (_, data) => this.collect(data));
    this.hls.on(Hls.Events.SUBTITLE_TRACKS_UPDATED, () => this.select());
    this.hls.on(Hls.Events.ERROR, (_, data) => this.failed(data));
    this.hls.loadSource(this.stream.url);
    this.hls.attachMedia(this.video);
  }

  failed(data) {
    if (!data.fatal) return;
    if (data.type === this.Hls.ErrorTypes.MEDIA_ERROR && !this.recovered) {
      this.recovered = true;
      this.hls.recoverMediaError();
      return;
    }
    const media = data.type === this.Hls.ErrorTypes.MEDIA_ERROR;
    this.trouble(media ? 'not-decodable' : 'stalled', data.error?.message ?? data.details,
      media ? undefined : data.url ?? data.frag?.url ?? data.context?.url ?? data.response?.url);
  }

  // hls.js has its own ways out of an element's failure, and reports what is final.
  elementFailed() {}

  get hasSubtitles() {
    return true;
  }

  /**
   * Loads a subtitle of the stream, or none.
   * @param {?{id: string, name: string}} subtitle
   */
  chooseSubtitle(subtitle) {
    this.wanted = subtitle;
    this.select();
  }

  // Also without a wish: hls.js would take the playlist's default by itself.
  select() {
    const {hls, wanted} = this;
    hls.subtitleTrack = wanted ? hls.subtitleTracks.findIndex(({url}) => isSubtitleAt(url, wanted)) : -1;
  }

  // Cues come in pieces, once for each track, and some in two pieces.
  collect({cues, subtitleTrack}) {
    const {url} = subtitleTrack ?? {};
    if (!this.cues.has(url)) this.cues.set(url, new Map());
    const known = this.cues.get(url);
    for (const cue of cues) known.set(`${cue.startTime} ${cue.endTime} ${cue.text}`, cue);
  }

  /** @param {{id: string, name: string}} subtitle @returns {Iterable<VTTCue>} what is loaded of it */
  cuesOf(subtitle) {
    const track = this.hls.subtitleTracks.find(({url}) => isSubtitleAt(url, subtitle));
    return this.cues.get(track?.url)?.values() ?? [];
  }

  destroy() {
    this.listeners.abort();
    this.hls.destroy();
    super.destroy();
  }
}

/**
 * Whether a playlist's address is that of a subtitle. Pure.
 * @param {string} address as the playlist has it: a track goes by its number there, a file by its path
 * @param {{id: string, name: string}} subtitle as the API has it
 * @returns {boolean}
 */
export function isSubtitleAt(address, subtitle) {
  const query = new URL(address, 'http://localhost/').searchParams;
  const id = query.get('subtitle_id')?.replace(/^"(.*)"$/, '$1');
  if (!id) return false;
  return id === subtitle.id || `t${id}` === subtitle.id || id.endsWith(`/${subtitle.name}`);
}
