// Runs the examples of docs/api.md against a server: examples.mjs TARNVTE DOCUMENT FOLDER
//
// What stands below a command is what its output must look like: JSON by its members and their types,
// other text line by line, each of which is somewhere in the output.
import assert from 'node:assert/strict';
import {execFileSync, spawn} from 'node:child_process';
import {readFileSync} from 'node:fs';
import {createInterface} from 'node:readline';

const [tarnvte, document, folder] = process.argv.slice(2);

/** [{command, expected}] of the document's console blocks. */
function examplesOf(text) {
  const examples = [];
  for (const [, block] of text.matchAll(/^```console\n(.*?)^```$/gms)) {
    for (const part of block.split(/^\$ /m).slice(1)) {
      const end = part.indexOf('\n');
      examples.push({command: part.slice(0, end), expected: part.slice(end + 1).trim()});
    }
  }
  return examples;
}

function kindOf(value) {
  return Array.isArray(value) ? 'array' : value === null ? 'null' : typeof value;
}

function assertAlike(expected, actual, place) {
  // What is not known (yet) is null.
  if (expected === null || actual === null) {
    assert.notEqual(actual, undefined, `${place} is missing`);
    return;
  }
  assert.equal(kindOf(actual), kindOf(expected), place);
  if (Array.isArray(expected)) {
    if (expected.length > 0) assertAlike(expected[0], actual[0], `${place}[0]`);
  } else if (typeof expected === 'object') {
    for (const [name, value] of Object.entries(expected)) {
      assert.ok(name in actual, `${place} has no ${name}: ${JSON.stringify(actual)}`);
      assertAlike(value, actual[name], `${place}.${name}`);
    }
  }
}

const server = spawn(tarnvte, ['serve', '--listen', '127.0.0.1:0', folder],
    {stdio: ['ignore', 'pipe', 'inherit']});
const lines = createInterface({input: server.stdout});
const [address] = await new Promise((resolve, reject) => {
  lines.once('line', (line) => resolve([line.replace(/\/$/, '')]));
  server.once('exit', () => reject(new Error('there is no server')));
});
try {
  const find = async () => {
    const list = await (await fetch(`${address}/api/v1/videos?q=clip`)).json();
    return list.videos.find((video) => video.verdict !== undefined);
  };
  let video;
  while ((video = await find()) === undefined) await new Promise((soon) => setTimeout(soon, 50));
  const variables = {...process.env, ADDRESS: address, VIDEO: String(video.id)};
  let stream;
  const examples = examplesOf(readFileSync(document, 'utf8'));
  for (const {command, expected} of examples) {
    const output = execFileSync('bash', ['-c', command],
        {env: {...variables, STREAM: stream ?? ''}, encoding: 'utf8'});
    if (expected.startsWith('{')) {
      const actual = JSON.parse(output);
      assertAlike(JSON.parse(expected), actual, command);
      if (command.includes('/api/v1/streams -H')) stream = actual.id;
    } else {
      assert.notEqual(expected, '', command);
      for (const line of expected.split('\n')) assert.ok(output.includes(line), `${command}: ${line}`);
    }
  }
  assert.ok(examples.length >= 10, `only ${examples.length} examples were found`);
  console.log(`${examples.length} examples`);
} finally {
  server.kill('SIGTERM');
  await new Promise((ended) => server.once('exit', ended));
}
