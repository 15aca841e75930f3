// One kind of stream (environment: KIND, PROFILE): it plays, and ten seeks land where they should.
// With NATIVE the browser has no Media Source Extensions and plays HLS by itself.
import assert from 'node:assert/strict';
import {after, before, test} from 'node:test';
import {PATIENCE, Server, View, launch, random, until} from './support.js';

const KIND = process.env.KIND;
const PROFILE = process.env.PROFILE || 'auto';
const SEEKS = 10;
let server;
let browser;
let view;

before(async () => {
  server = await Server.start();
  browser = await launch();
  view = await View.open(browser, server);
  if (!process.env.NATIVE) return;
  await view.page.addInitScript(() => {
    delete globalThis.MediaSource;
    delete globalThis.ManagedMediaSource;
  });
});

after(async () => {
  await browser?.close();
  await server?.stop();
});

test(`${KIND} plays`, {timeout: PATIENCE * 4}, async () => {
  const id = await server.video('coded');
  await view.choose('coded');
  await view.playing();
  await view.page.evaluate(([kind, profile]) => tarnvte.change({kind, profile}), [KIND, PROFILE]);
  await view.wait((kind) => tarnvte.stream?.kind === kind, KIND);
  await view.playing();
  await view.inTime();
  if (process.env.NATIVE) assert.equal(await view.page.evaluate(() => new URL(tarnvte.video.src).protocol), 'http:');
  const {width, duration} = await view.page.evaluate(() => ({width: tarnvte.video.videoWidth, duration: tarnvte.duration}));
  assert.ok(width >= 300, `${width} pixels`);
  assert.ok(Math.abs(duration - 150) < 1, `${duration} s`);
  assert.equal((await server.get('/streams')).streams.filter(({video}) => video === id).length, 1);
});

test('seeks land within half a second, with picture and sound', {timeout: PATIENCE * 10}, async () => {
  const next = random(20);
  for (let i = 0; i < SEEKS; ++i) {
    // Paused, so that the picture that was sought stays, however late it is looked at.
    await view.run(false);
    const {last} = await view.state();
    let target = 1 + next() * 110;
    if (Math.abs(target - last.shown) < 5) target = (target + 20) % 110;
    const from = await view.page.evaluate((second) => {
      const first = film.frames.length;
      const at = film.frames.at(-1).shown;
      tarnvte.seek(second);
      return {first, at};
    }, target);
    const elsewhere = ({first, at}) => film.frames.slice(first).find(({shown}) => Math.abs(shown - at) > 2.5);
    await view.wait(elsewhere, from);
    const landed = await view.page.evaluate(elsewhere, from);
    const note = `sought ${target}, got ${JSON.stringify(landed)}`;
    // The picture says which quarter of a second it is of.
    assert.ok(landed.shown > target - 0.75 && landed.shown < target + 0.55, note);
    await view.wait((second) => !tarnvte.video.seeking && Math.abs(tarnvte.time - second) < 0.55, target);
    await view.run(true);
    await view.playing();
    await view.inTime();
  }
  assert.ok(await view.page.evaluate(() => tarnvte.lastSeekMs) > 0);
});

test('nothing went wrong in the page, and nothing runs on behind it', {timeout: PATIENCE * 2}, async () => {
  await view.page.goBack();
  await view.page.waitForSelector('.library');
  await server.idle();
  await until(() => server.get('/streams'), ({streams}) => streams.length === 0);
  await view.close();
});
