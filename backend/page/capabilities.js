// What the browser says it can play.

// What the browser gets of these is put together by Media Source Extensions, where it has them.
const BY_MEDIA_SOURCE = ['remux', 'h264'];

/**
 * What MediaCapabilities is to be asked for a check. Pure.
 * @param {object} check one of a video's `checks`
 * @param {'file'|'media-source'} how
 * @returns {?object} null where there is nothing it could be asked
 */
export function decodingQuestion(check, how) {
  if (!check.video || !(check.width > 0 && check.height > 0)) return null;
  const question = {
    type: how,
    video: {
      contentType: check.video,
      width: check.width,
      height: check.height,
      bitrate: check.bit_rate > 0 ? check.bit_rate : 1,
      framerate: check.frame_rate > 0 ? check.frame_rate : 25,
    },
  };
  if (check.audio) question.audio = {contentType: check.audio};
  return question;
}

/**
 * What two ways of asking say together. A plain no of either is one; where MediaCapabilities has no
 * opinion, the other decides. Pure.
 * @param {boolean} typeSupported canPlayType or isTypeSupported
 * @param {?{supported: boolean}} capabilities null where it has no opinion
 * @returns {boolean}
 */
export function decide(typeSupported, capabilities) {
  return typeSupported && (capabilities?.supported ?? true);
}

/** The browser's own means, for the functions below. @returns {object} */
export function browserMeans() {
  const probe = document.createElement('video');
  const source = globalThis.MediaSource ?? globalThis.ManagedMediaSource;
  return {
    canPlayType: (type) => probe.canPlayType(type),
    isTypeSupported: source ? (type) => source.isTypeSupported(type) : null,
    decodingInfo: navigator.mediaCapabilities
      ? (question) => navigator.mediaCapabilities.decodingInfo(question) : null,
  };
}

async function canPlay(check, means) {
  const bySource = means.isTypeSupported !== null && BY_MEDIA_SOURCE.includes(check.name);
  const typeSupported = bySource ? means.isTypeSupported(check.type) : means.canPlayType(check.type) !== '';
  const question = means.decodingInfo && typeSupported
    ? decodingQuestion(check, bySource ? 'media-source' : 'file') : null;
  const capabilities = question ? await means.decodingInfo(question).catch(() => null) : null;
  return decide(typeSupported, capabilities);
}

/**
 * The `can` member of a request for a stream.
 * @param {object[]} checks the video's
 * @param {object} [means] as browserMeans() has them
 * @returns {Promise<Object<string, boolean>>} never rejects
 */
export async function askBrowser(checks, means = browserMeans()) {
  const can = {
    mse: means.isTypeSupported !== null,
    hls: means.canPlayType('application/vnd.apple.mpegurl') !== '',
  };
  const answers = await Promise.all((checks ?? []).map((check) => canPlay(check, means)));
  (checks ?? []).forEach((check, i) => {
    can[check.name] = answers[i];
  });
  return can;
}
