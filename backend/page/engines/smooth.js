// Smooth Streaming by dash.js and its module for it.
import {Engine} from './engine.js';
import {loadScript} from './scripts.js';

/** Loads dash.js. @returns {Promise<object>} */
export async function loadDash() {
  await loadScript('lib/dash.mediaplayer.min.js');
  await loadScript('lib/dash.mss.min.js');
  return globalThis.dashjs;
}

const SETTINGS = {
  debug: {logLevel: 0},
  streaming: {
    // A fragment that is still being made is waited for, up to a minute.
    fragmentRequestTimeout: 70000,
    manifestRequestTimeout: 70000,
    retryAttempts: {MPD: 1, MediaSegment: 2, InitializationSegment: 1},
    buffer: {bufferTimeDefault: 20, bufferToKeep: 60, initialBufferLevel: NaN},
    lastBitrateCachingInfo: {enabled: false},
    lastMediaSettingsCachingInfo: {enabled: false},
    cmcd: {enabled: false},
  },
};

/** Plays a Smooth Streaming presentation through Media Source Extensions. */
export class SmoothEngine extends Engine {
  /** @param {import('./engine.js').Setting} setting @param {object} dashjs the library */
  constructor(setting, dashjs) {
    super(setting);
    this.player = dashjs.MediaPlayer().create();
    const {events} = dashjs.MediaPlayer;
    this.player.updateSettings(SETTINGS);
    for (const event of [events.ERROR, events.PLAYBACK_ERROR]) {
      this.player.on(event, ({error}) => this.failed(error));
    }
    this.player.initialize(this.video, new URL(this.stream.url, location.href).href,
      this.wantsPlay(), this.at);
  }

  failed(error) {
    const url = error?.data?.request?.url;
    const decode = this.video.error?.code === MediaError.MEDIA_ERR_DECODE;
    this.trouble(decode ? 'not-decodable' : 'stalled', error?.message ?? '', url);
  }

  elementFailed() {}

  seek(second) {
    this.at = second;
    if (this.player.isReady()) this.player.seek(second);
    else this.video.currentTime = second;
  }

  destroy() {
    this.listeners.abort();
    this.player.destroy();
    super.destroy();
  }
}
