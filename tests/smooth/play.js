// node play.js FOLDER: plays the presentation in FOLDER ("manifest_predict", "smooth/") in a browser,
// with two seeks, from a plain file server. Prints, as JSON, what the player said and showed.
const fs = require('fs');
const http = require('http');
const path = require('path');
const {chromium} = require('playwright-core');

const [folder] = process.argv.slice(2);
const dash = path.join(__dirname, 'node_modules/dashjs/dist/modern/umd');

const PAGE = `<!DOCTYPE html><meta charset="utf-8"><title>player</title><link rel="icon" href="data:,">
<video id="video" muted width="640"></video>
<script src="/dash.all.min.js"></script><script src="/dash.mss.min.js"></script>`;

const requests = [];

function find(url) {
  if (url.pathname === '/manifest') return path.join(folder, 'manifest_predict');
  if (url.pathname === '/stream') return path.join(folder, 'smooth', url.searchParams.get('fragment_id'));
  if (/^\/dash\.[a-z.]+\.js$/.test(url.pathname)) return path.join(dash, url.pathname);
  return null;
}

const server = http.createServer((request, response) => {
  const url = new URL(request.url, 'http://localhost');
  if (url.pathname === '/') {
    response.setHeader('Content-Type', 'text/html');
    response.end(PAGE);
    return;
  }
  const file = find(url);
  const found = file !== null && fs.existsSync(file);
  if (url.pathname === '/stream') requests.push({id: url.searchParams.get('fragment_id'), found});
  response.statusCode = found ? 200 : 404;
  response.end(found ? fs.readFileSync(file) : '');
});

// Runs in the page. Resolves once the picture has moved on for a second behind the position.
async function playFrom(position) {
  const video = document.getElementById('video');
  if (position !== null) video.currentTime = position;
  const from = position ?? 0;
  const frames = video.getVideoPlaybackQuality().totalVideoFrames;
  for (let i = 0; i < 400; ++i) {
    const shown = video.getVideoPlaybackQuality().totalVideoFrames - frames;
    if (!video.seeking && video.currentTime > from + 1 && shown > 5) break;
    await new Promise((resolve) => setTimeout(resolve, 50));
  }
  return {
    position: video.currentTime,
    frames: video.getVideoPlaybackQuality().totalVideoFrames - frames,
  };
}

async function main() {
  await new Promise((resolve) => server.listen(0, '127.0.0.1', resolve));
  const origin = `http://127.0.0.1:${server.address().port}`;
  const browser = await chromium.launch({
    executablePath: '/usr/bin/chromium',
    args: [
      '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
      '--disable-background-networking', '--disable-component-update', '--disable-sync',
      '--disable-dev-shm-usage', '--autoplay-policy=no-user-gesture-required',
    ],
  });
  const page = await browser.newPage();
  const errors = [];
  page.on('pageerror', (error) => errors.push(String(error)));
  page.on('console', (message) => {
    if (message.type() === 'error') errors.push(message.text());
  });
  await page.goto(origin + '/');
  await page.evaluate((manifest) => {
    window.playerErrors = [];
    const player = dashjs.MediaPlayer().create();
    const events = dashjs.MediaPlayer.events;
    for (const event of [events.ERROR, events.PLAYBACK_ERROR]) {
      player.on(event, (e) => window.playerErrors.push(JSON.stringify(e.error ?? e)));
    }
    player.initialize(document.getElementById('video'), manifest, true);
  }, origin + '/manifest');
  const stops = [];
  for (const position of [null, 21, 7]) stops.push(await page.evaluate(playFrom, position));
  const result = await page.evaluate(() => {
    const video = document.getElementById('video');
    return {
      duration: video.duration,
      width: video.videoWidth,
      height: video.videoHeight,
      audioBytes: video.webkitAudioDecodedByteCount,
      errors: window.playerErrors,
    };
  });
  result.errors.push(...errors);
  await browser.close();
  server.close();
  console.log(JSON.stringify({...result, stops, requests}));
}

main().catch((error) => {
  console.error(error);
  process.exit(1);
});
