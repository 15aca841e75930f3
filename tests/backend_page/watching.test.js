// What a viewer does with a film besides seeking.
import assert from 'node:assert/strict';
import {after, afterEach, before, test} from 'node:test';
import {PATIENCE, Server, View, launch, until} from './support.js';

const LONG = {timeout: PATIENCE * 3};
let server;
let browser;
let view;

before(async () => {
  server = await Server.start();
  // The sound is listened to without anybody's click.
  browser = await launch(['--autoplay-policy=no-user-gesture-required']);
  await server.videos();
});

afterEach(async () => {
  for (const context of browser.contexts()) await context.close();
  await server.idle();
});

after(async () => {
  await browser?.close();
  await server?.stop();
});

// The strongest tone that is heard, in Hz.
async function hears(page, hertz) {
  await page.evaluate(() => {
    if (film.sound) return;
    const sound = new AudioContext();
    const analyser = new AnalyserNode(sound, {fftSize: 4096});
    sound.createMediaElementSource(tarnvte.video).connect(analyser).connect(sound.destination);
    film.sound = analyser;
  });
  await page.waitForFunction((wanted) => {
    if (tarnvte.time > 120) tarnvte.seek(20);
    const bins = new Float32Array(film.sound.frequencyBinCount);
    film.sound.getFloatFrequencyData(bins);
    const loudest = bins.indexOf(Math.max(...bins));
    const heard = loudest * film.sound.context.sampleRate / film.sound.fftSize;
    return Math.max(...bins) > -80 && Math.abs(heard - wanted) < 60;
  }, hertz, {timeout: PATIENCE, polling: 100});
}

test('another audio track goes on where the first was', LONG, async () => {
  view = await View.open(browser, server);
  await view.choose('coded');
  await view.playing();
  await hears(view.page, 440);
  await view.page.evaluate(() => tarnvte.seek(20));
  await view.wait(() => film.frames.at(-1).shown >= 20);
  await view.page.evaluate(() => {
    tarnvte.video.volume = 0.5;
  });
  const first = await view.page.evaluate(() => tarnvte.stream.id);
  await view.pick('Audio track', 'German');
  await view.wait((id) => tarnvte.stream && tarnvte.stream.id !== id, first);
  await view.playing();
  await view.inTime();
  const {time, volume} = await view.page.evaluate(() => ({time: tarnvte.time, volume: tarnvte.video.volume}));
  assert.ok(time > 20, `at ${time}`);
  assert.equal(volume, 0.5);
  await hears(view.page, 1760);
  // The first stream is closed.
  await until(() => server.get('/streams'), ({streams}) => streams.every(({id}) => id !== first));
  await view.close();
});

for (const kind of ['file', 'hls', 'webm', 'smooth']) {
  test(`subtitles at their second, ${kind}`, LONG, async () => {
    view = await View.open(browser, server);
    await view.choose('coded');
    await view.playing();
    await view.page.evaluate((wanted) => tarnvte.change({kind: wanted}), kind);
    await view.wait((wanted) => tarnvte.stream?.kind === wanted, kind);
    await view.playing();
    await view.pick('Subtitles', 'coded.en');
    // Paused, so that nothing goes by unseen.
    await view.run(false);
    const reads = async (second, text) => {
      await view.page.evaluate((wanted) => tarnvte.seek(wanted), second);
      await view.wait((wanted) => document.querySelector('.captions').textContent === wanted, text);
      const at = await view.page.evaluate(() => tarnvte.time);
      assert.ok(Math.abs(at - second) < 0.55, `${at} instead of ${second}`);
    };
    await reads(35, 'Line 3');
    await reads(40, '');
    await reads(103.8, 'Line 10');
    await view.pick('Subtitles', 'German');
    await reads(15, 'Zeile 1');
    await view.pick('Subtitles', 'None');
    await reads(14, '');
    await view.run(true);
    await view.playing();
    await view.inTime();
    await view.close();
  });
}

test('quality and kind are chosen from the menu, and the film goes on', LONG, async () => {
  view = await View.open(browser, server);
  await view.choose('coded');
  await view.playing();
  await view.page.evaluate(() => tarnvte.seek(30));
  await view.playing();
  await view.pick('Settings', 'Quality', '360p');
  await view.wait(() => tarnvte.stream?.kind === 'hls' && /480x360/.test(tarnvte.stream.profile));
  await view.playing();
  await view.inTime();
  await view.pick('Settings', 'Stream', 'WebM');
  await view.wait(() => tarnvte.stream?.kind === 'webm');
  await view.playing();
  await view.inTime();
  await view.pick('Settings', 'Speed', '1.5');
  assert.equal(await view.page.evaluate(() => tarnvte.video.playbackRate), 1.5);
  await view.pick('Settings', 'Stream', 'HLS');
  await view.wait(() => tarnvte.stream?.kind === 'hls');
  await view.playing();
  assert.equal(await view.page.evaluate(() => tarnvte.video.playbackRate), 1.5);
  const {time} = await view.state();
  assert.ok(time > 30, `at ${time}`);
  await view.close();
});

test('a foreign format is converted, and the panel says why', LONG, async () => {
  view = await View.open(browser, server);
  await view.choose('foreign');
  await view.playing();
  await view.inTime();
  assert.equal((await view.state()).kind, 'hls');
  await view.page.keyboard.press('i');
  await view.wait(() => /\d+ ms/.test(document.querySelector('.panel-rows').textContent));
  const why = await view.page.textContent('.panel-why');
  assert.ok(why.length > 10, why);
  assert.ok(await view.page.evaluate(() => tarnvte.firstPictureMs) > 0);
  await view.close();
});

test('a page that is closed leaves no transcoder, nor does one that goes elsewhere', LONG, async () => {
  for (const leave of [() => view.page.close(), () => view.page.goto('about:blank')]) {
    view = await View.open(browser, server);
    await view.choose('coded');
    await view.playing();
    await view.page.evaluate(() => tarnvte.change({kind: 'webm'}));
    await view.wait(() => tarnvte.stream?.kind === 'webm');
    await view.playing();
    await leave();
    await server.idle();
    await until(() => server.get('/streams'), ({streams}) => streams.length === 0);
    await view.context.close();
  }
});

test('two tabs at once', LONG, async () => {
  const context = await browser.newContext({viewport: {width: 640, height: 480}});
  const tabs = [await View.open(context, server), await View.open(context, server)];
  await tabs[0].choose('coded');
  await tabs[0].playing();
  await tabs[1].choose('foreign');
  await tabs[1].playing();
  await tabs[0].page.bringToFront();
  await tabs[0].playing();
  const ids = await Promise.all(tabs.map(({page}) => page.evaluate(() => tarnvte.stream.id)));
  assert.notEqual(ids[0], ids[1]);
  for (const tab of tabs) assert.deepEqual(tab.errors, []);
});

test('a film goes on where one left it', LONG, async () => {
  view = await View.open(browser, server);
  await view.choose('coded');
  await view.playing();
  await view.page.evaluate(() => tarnvte.seek(60));
  await view.wait(() => film.frames.at(-1).shown >= 61);
  await view.page.goBack();
  const card = view.page.locator('section:has-text("Continue watching") a.card:has-text("coded")').first();
  await card.waitFor();
  assert.ok(await card.locator('progress').getAttribute('value') > 0.4);
  await card.click();
  await view.wait(() => film.frames.at(-1)?.shown >= 60 && tarnvte.state === 'open');
  await view.playing();
  await view.inTime();
  const {time} = await view.state();
  assert.ok(time > 60, `at ${time}`);
  await view.close();
});

test('a stream that ended is taken up again at its second', LONG, async () => {
  view = await View.open(browser, server);
  await view.choose('foreign');
  await view.playing();
  await view.page.evaluate(() => tarnvte.seek(9));
  await view.playing();
  const id = await view.page.evaluate(() => tarnvte.stream.id);
  await fetch(`${server.address}/api/v1/streams/${id}`, {method: 'DELETE'});
  // The open panel asks often.
  await view.page.keyboard.press('i');
  await view.wait((old) => tarnvte.stream && tarnvte.stream.id !== old, id);
  await view.playing();
  await view.inTime();
  assert.ok((await view.state()).time > 9);
  await view.close();
});
