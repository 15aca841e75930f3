// What the browser says it can play.

const AUDIO = /^(mp4a|ac-3|ec-3|opus|vorbis|flac|mp3|alac|dts|pcm|1$)/i;

/**
 * A MIME type's container and codecs, by what they carry. Pure.
 * @param {string} type 'video/mp4; codecs="avc1.64001f, mp4a.40.2"' say
 * @returns {{container: string, video: string[], audio: string[]}}
 */
export function splitType(type) {
  const [container] = type.split(';', 1);
  const codecs = /codecs\s*=\s*"?([^"]*)"?/i.exec(type)?.[1] ?? '';
  const names = codecs.split(',').map((name) => name.trim()).filter(Boolean);
  return {
    container: container.trim().toLowerCase(),
    video: names.filter((name) => !AUDIO.test(name)),
    audio: names.filter((name) => AUDIO.test(name)),
  };
}

/**
 * What MediaCapabilities is to be asked for a check; it takes one codec for picture and one for
 * sound. Pure.
 * @param {object} check one of a video's `checks`
 * @param {'file'|'media-source'} how
 * @returns {?object} null where there is nothing it could be asked
 */
export function decodingQuestion(check, how) {
  const {container, video, audio} = splitType(check.type);
  const question = {type: how};
  if (container.startsWith('video/') && video.length > 0) {
    if (!(check.width > 0 && check.height > 0)) return null;
    question.video = {
      contentType: `${container}; codecs="${video[0]}"`,
      width: check.width,
      height: check.height,
      bitrate: check.bit_rate > 0 ? check.bit_rate : 1,
      framerate: check.frame_rate > 0 ? check.frame_rate : 25,
    };
  }
  if (audio.length > 0) {
    question.audio = {contentType: `${container.replace(/^video\//, 'audio/')}; codecs="${audio[0]}"`};
  }
  return question.video || question.audio ? question : null;
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

// Checks of what hls.js puts together are asked as for Media Source Extensions.
function isForMediaSource(check) {
  return /^(mse|hls|smooth)/.test(check.name);
}

async function canPlay(check, means) {
  const how = isForMediaSource(check) ? 'media-source' : 'file';
  const typeSupported = how === 'file'
    ? means.canPlayType(check.type) !== '' : means.isTypeSupported?.(check.type) ?? false;
  const question = means.decodingInfo && typeSupported ? decodingQuestion(check, how) : null;
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
