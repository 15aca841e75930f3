// node read_playlist.js FILE: what an independent reader makes of a playlist, as JSON, with everything
// that it complained of.
const fs = require('fs');
const {Parser} = require('m3u8-parser');

const parser = new Parser();
const complaints = [];
for (const event of ['warn', 'error']) {
  parser.on(event, ({message}) => complaints.push(message));
}
parser.push(fs.readFileSync(process.argv[2], 'utf8'));
parser.end();
console.log(JSON.stringify({...parser.manifest, complaints}));
