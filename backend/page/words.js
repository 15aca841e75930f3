// What the server's error words mean, in sentences. Pure.

/**
 * By error word: `text` says what happened and what helps; `retry` is "soon" where waiting helps
 * (the page counts down and tries again), "hand" where trying again by hand may help, "no" where it
 * cannot.
 * @type {Readonly<Object<string, {text: string, retry: 'soon'|'hand'|'no'}>>}
 */
export const WORDS = Object.freeze({
  // The page's own.
  'unreachable': {text: 'The server does not answer. Is it still running?', retry: 'hand'},
  'not-decodable': {text: 'The browser could not decode this stream. Another kind of stream may play.', retry: 'hand'},
  'stalled': {text: 'The stream broke off and could not be taken up again.', retry: 'hand'},

  'bad-request': {text: 'The server did not understand the page. Reload the page: it may be older than the server.', retry: 'no'},
  'token-required': {text: 'This server asks for a token. Open the address that was printed when it started.', retry: 'no'},
  'forbidden': {text: 'The server refuses requests that come from another site’s page.', retry: 'no'},
  'no-such-video': {text: 'This video is no longer in the library: it was moved, renamed or deleted.', retry: 'no'},
  'no-such-stream': {text: 'The stream is over.', retry: 'hand'},
  'no-such-subtitle': {text: 'This subtitle is no longer there.', retry: 'no'},
  'no-such-fragment': {text: 'This part of the video does not exist; the file may be shorter than it says.', retry: 'hand'},
  'no-such-address': {text: 'The server does not know this address. Reload the page: it may be older than the server.', retry: 'no'},
  'method-not-allowed': {text: 'The server did not understand the page. Reload the page: it may be older than the server.', retry: 'no'},
  'TransAudioNotSupported': {text: 'The sound of this video is in a format that cannot be converted here.', retry: 'no'},
  'TransVideoNotSupported': {text: 'The picture of this video is in a format that cannot be converted here.', retry: 'no'},
  'TransVideoNotHardwareSupported': {text: 'The hardware of this machine cannot decode this video’s format. Another quality may use software instead.', retry: 'no'},
  'TransVideoOutOfResolutionCapability': {text: 'The picture is larger than this machine can convert.', retry: 'no'},
  'TransVideoOutOfProfileCapability': {text: 'The video’s encoding (its profile or level) is beyond what this machine can convert.', retry: 'no'},
  'TransVideoOutOfFramerateCapability': {text: 'The video has more pictures in a second than this machine can convert.', retry: 'no'},
  'not-playable': {text: 'This file cannot be played: it is damaged, or no video.', retry: 'no'},
  'stream-ended': {text: 'The stream is over: it was closed, or nobody watched for a while.', retry: 'hand'},
  'too-large': {text: 'The request was larger than the server accepts.', retry: 'no'},
  'bad-range': {text: 'The file is shorter than expected. It may have changed; reload the page.', retry: 'hand'},
  'wrong-host': {text: 'The server is not known by the name in the address bar. Use the address that it printed.', retry: 'no'},
  'too-many-streams': {text: 'As many streams as this server allows are open. Close one, in another tab say.', retry: 'soon'},
  'too-many-requests': {text: 'The server has too much to do at the moment.', retry: 'soon'},
  'failed': {text: 'Something went wrong in the server; its log says what.', retry: 'hand'},
  'TransEnable': {text: 'As many videos are being converted as this machine can manage. One must end first.', retry: 'soon'},
  'TransEnableOfflineConverting': {text: 'The machine is busy converting other videos in the background.', retry: 'soon'},
  'TransSapceNotEnough': {text: 'There is not enough free space on the machine to prepare the stream.', retry: 'hand'},
  'busy': {text: 'The server is busy.', retry: 'soon'},
  'superseded': {text: 'Another position was asked for meanwhile.', retry: 'soon'},
  'stopping': {text: 'The server is being stopped.', retry: 'hand'},
  'late': {text: 'The server took too long over this.', retry: 'hand'},
});

/**
 * What to tell about an error.
 * @param {{word?: string, message?: string}} error
 * @returns {{text: string, retry: 'soon'|'hand'|'no'}} for an unknown word the server's own message
 */
export function explain(error) {
  const word = error.word ?? '';
  if (Object.hasOwn(WORDS, word)) return WORDS[word];
  return {text: error.message || 'Something went wrong.', retry: 'hand'};
}

/**
 * How long to wait before the next try.
 * @param {?string} header a Retry-After field, seconds
 * @returns {number} seconds, 1 to 120; 5 where the field says nothing
 */
export function retrySeconds(header) {
  const seconds = /^\d+$/.test(header ?? '') ? Number(header) : 5;
  return Math.min(120, Math.max(1, seconds));
}

/** What the kinds of streams are called. */
export const KINDS = Object.freeze({
  auto: 'Auto', file: 'The file itself', hls: 'HLS', smooth: 'Smooth Streaming', webm: 'WebM',
  http: 'Progressive',
});

/**
 * A track's language in words.
 * @param {?string} code as the file has it, "ger" say
 * @returns {string} empty where there is none
 */
export function languageName(code) {
  if (!code || code === 'und') return '';
  try {
    const name = new Intl.DisplayNames(['en'], {type: 'language', fallback: 'none'}).of(code);
    return name ?? code;
  } catch {
    return code;
  }
}

/** An audio track in words. @param {object} track @param {number} index from 0 @returns {string} */
export function audioName(track, index) {
  const layout = {1: 'mono', 2: 'stereo', 6: '5.1', 8: '7.1'}[track.channels] ??
      (track.channels ? `${track.channels} channels` : '');
  const what = [track.codec?.toUpperCase(), layout].filter(Boolean).join(' ');
  return [languageName(track.language) || `Track ${index + 1}`, what].filter(Boolean).join(', ');
}

/** A subtitle in words. @param {object} subtitle @param {number} index from 0 @returns {string} */
export function subtitleName(subtitle, index) {
  const language = languageName(subtitle.language);
  if (subtitle.name && language && subtitle.name !== language) return `${subtitle.name} (${language})`;
  return subtitle.name || language || `Subtitle ${index + 1}`;
}
