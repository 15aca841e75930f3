// node read_fragment.js FILE...: what an independent reader makes of Smooth Streaming fragments, as
// JSON. A player changes boxes and writes the fragment anew for its decoder, so "copy" tells whether the
// reader writes what it has read.
const fs = require('fs');
const isobox = require('codem-isoboxer');

// The reader leaves such boxes to its users. The only one in a fragment holds its times.
isobox.addBoxProcessor('uuid', function () {
  this._procFullBox();
  this._procField('time', 'uint', 64);
  this._procField('duration', 'uint', 64);
});

const tree = (boxes) =>
  boxes.map((box) => (box.boxes ? `${box.type}(${tree(box.boxes)})` : box.type)).join(' ');

const read = (path) => {
  const bytes = fs.readFileSync(path);
  const file = isobox.parseBuffer(new Uint8Array(bytes).buffer);
  const [mfhd, tfhd, tfdt, trun, tfxd, mdat] = [
    'mfhd', 'tfhd', 'tfdt', 'trun', 'uuid', 'mdat'].map((type) => file.fetch(type));
  return {
    boxes: tree(file.boxes),
    sequence: mfhd.sequence_number,
    track: tfhd.track_ID,
    defaultFlags: tfhd.default_sample_flags,
    decodeTime: tfdt.baseMediaDecodeTime,
    id: Buffer.from(tfxd.usertype).toString('hex'),
    time: tfxd.time,
    duration: tfxd.duration,
    offset: trun.data_offset,
    samples: trun.samples.map((sample) => [
      sample.sample_duration, sample.sample_size, sample.sample_flags ?? tfhd.default_sample_flags]),
    moof: file.fetch('moof').size,
    mdat: mdat.size,
    copy: Buffer.from(file.write()).equals(bytes),
  };
};

console.log(JSON.stringify(process.argv.slice(2).map(read)));
