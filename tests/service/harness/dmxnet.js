'use strict';
// Sends universes of Art-Net through dmxnet. Arguments: the folder of the package, and JSON: {"address": of this host,
// "short_name", "long_name", "frame_ms", "universes": [{"net", "subnet", "universe", "ip"}]}. Slot 1 of each universe counts
// the frames, slot 2 is the place of the universe in the list, slot 3 is full. Writes "sending" after the first frame.
const [folder, text] = process.argv.slice(2);
const { dmxnet } = require(folder);
const settings = JSON.parse(text);
const node = new dmxnet({
  hosts: [settings.address],
  sName: settings.short_name,
  lName: settings.long_name,
  log: { level: 'error' },
});
const senders = settings.universes.map((universe) => node.newSender(universe));
let frame = 0;
setInterval(() => {
  frame += 1;
  senders.forEach((sender, place) => {
    sender.prepChannel(1, place);
    sender.prepChannel(2, 255);
    sender.setChannel(0, frame % 256);
  });
  if (frame === 1) console.log('sending');
}, settings.frame_ms);
