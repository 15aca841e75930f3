// What the player's menus hold.
import {KINDS, audioName, subtitleName} from './words.js';

const RATES = [0.5, 0.75, 1, 1.25, 1.5, 1.75, 2];
const LIMITS = ['480', '720', '1080'];

/** @param {number} rate @returns {string} */
export function rateName(rate) {
  return rate === 1 ? 'Normal' : `${rate}×`;
}

/**
 * The next rate in a direction. Pure.
 * @param {number} rate @param {number} direction 1 or -1
 * @returns {number}
 */
export function nextRate(rate, direction) {
  const further = RATES.filter((other) => (other - rate) * direction > 0.001);
  return (direction > 0 ? further[0] : further.at(-1)) ?? rate;
}

/**
 * The audio tracks. Pure.
 * @param {object} film @param {?object} stream
 * @param {(id: string) => void} choose
 * @returns {import('./menu.js').Entry[]}
 */
export function audioEntries(film, stream, choose) {
  return (film.audio ?? []).map((track, i) => ({
    label: audioName(track, i),
    checked: String(track.id) === String(stream?.audio ?? film.audio[0].id),
    choose: () => choose(track.id),
  }));
}

/**
 * The subtitles, and none of them. Pure.
 * @param {object[]} subtitles @param {?object} chosen
 * @param {(subtitle: ?object) => void} choose
 * @returns {import('./menu.js').Entry[]}
 */
export function subtitleEntries(subtitles, chosen, choose) {
  return [
    {label: 'None', checked: !chosen, choose: () => choose(null)},
    ...subtitles.map((subtitle, i) => ({
      label: subtitleName(subtitle, i),
      checked: subtitle.id === chosen?.id,
      choose: () => choose(subtitle),
    })),
  ];
}

/**
 * The qualities: automatic, automatic up to a height, each profile of the present kind. Pure.
 * @param {object} film @param {object} choice @param {?object} stream
 * @param {(changes: object) => void} change
 * @returns {import('./menu.js').Entry[]}
 */
export function qualityEntries(film, choice, stream, change) {
  const kind = profileKind(choice, stream);
  const auto = choice.profile === 'auto';
  const limits = LIMITS.filter((limit) => !(film.height <= Number(limit)));
  return [
    {label: 'Auto', checked: auto && !choice.limit, choose: () => change({profile: 'auto', limit: ''})},
    ...limits.map((limit) => ({
      label: `Auto, up to ${limit}p`,
      checked: auto && choice.limit === limit,
      choose: () => change({profile: 'auto', limit}),
    })),
    ...(film.profiles?.[kind] ?? []).map(({key, label}) => ({
      label,
      checked: choice.profile === key,
      choose: () => change({kind, profile: key, limit: ''}),
    })),
  ];
}

// Whose profiles to offer: a file has none, and is converted to HLS where one is wanted.
function profileKind(choice, stream) {
  const kind = choice.kind === 'auto' ? stream?.kind : choice.kind;
  return !kind || kind === 'file' || kind === 'auto' ? 'hls' : kind;
}

/** The kinds of streams. Pure. @returns {import('./menu.js').Entry[]} */
export function kindEntries(choice, stream, change) {
  return Object.entries(KINDS).map(([kind, label]) => ({
    label,
    detail: kind === 'auto' && choice.kind === 'auto' && stream ? KINDS[stream.kind] : undefined,
    checked: choice.kind === kind,
    choose: () => change({kind, profile: 'auto'}),
  }));
}

/** The speeds. Pure. @returns {import('./menu.js').Entry[]} */
export function rateEntries(rate, choose) {
  return RATES.map((value) => ({
    label: rateName(value), checked: Math.abs(value - rate) < 0.001, choose: () => choose(value),
  }));
}

/** The label of what is checked. Pure. @param {import('./menu.js').Entry[]} entries @returns {string} */
export function checkedLabel(entries) {
  return entries.find(({checked}) => checked)?.label ?? '';
}
