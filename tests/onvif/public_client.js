// A public ONVIF client (the package "onvif") against the test camera: who it is, what it streams,
// and whether what is set is read back. Usage: public_client.js PORT USER PASSWORD
'use strict';
const assert = require('assert');
const { Cam } = require('onvif');

const [port, username, password] = process.argv.slice(2);
const call = (cam, name, ...given) =>
  new Promise((resolve, reject) =>
    cam[name](...given, (error, answer) => (error ? reject(new Error(`${name}: ${error.message}`)) : resolve(answer))));
const connect = (options) =>
  new Promise((resolve, reject) => {
    const cam = new Cam({ hostname: '127.0.0.1', port, timeout: 30000, ...options }, (error) =>
      error ? reject(error) : resolve(cam));
  });

async function main() {
  const cam = await connect({ username, password });
  assert.strictEqual(cam.profiles.length, 2);
  assert.strictEqual(cam.videoSources[0].$.token, 'VideoSource0');

  const clock = await call(cam, 'getSystemDateAndTime');
  assert.ok(clock instanceof Date);
  const device = await call(cam, 'getDeviceInformation');
  assert.strictEqual(device.manufacturer, 'Orvanta');
  const scopes = await call(cam, 'getScopes');
  assert.ok(scopes.some((scope) => scope.scopeItem.includes('/hardware/')));
  assert.ok((await call(cam, 'getCapabilities')).media.XAddr.endsWith('/onvif/media_service'));
  assert.strictEqual((await call(cam, 'getServices', true)).length, 4);
  assert.strictEqual((await call(cam, 'getHostname')).name, 'camera');

  const uri = await call(cam, 'getStreamUri', { protocol: 'RTSP', profileToken: 'Profile1' });
  assert.ok(/^rtsp:\/\/127\.0\.0\.1:\d+\/live$/.test(uri.uri), uri.uri);

  const options = await call(cam, 'getVideoEncoderConfigurationOptions', 'VideoEncoder1');
  assert.ok(options.H264.resolutionsAvailable.some((size) => size.width === 1280));
  const encoder = await call(cam, 'getVideoEncoderConfiguration', 'VideoEncoder2');
  encoder.resolution = { width: 640, height: 480 };
  encoder.rateControl.frameRateLimit = 10;
  encoder.rateControl.bitrateLimit = 777;
  await call(cam, 'setVideoEncoderConfiguration', encoder);
  const changed = await call(cam, 'getVideoEncoderConfiguration', 'VideoEncoder2');
  assert.deepStrictEqual(changed.resolution, { width: 640, height: 480 });
  assert.strictEqual(changed.rateControl.bitrateLimit, 777);

  await call(cam, 'setImagingSettings', { token: 'VideoSource0', brightness: 61, contrast: 17 });
  const imaging = await call(cam, 'getImagingSettings', { token: 'VideoSource0' });
  assert.deepStrictEqual([imaging.brightness, imaging.contrast], [61, 17]);

  const interfaces = await call(cam, 'getNetworkInterfaces');
  assert.ok(JSON.stringify(interfaces).includes('"prefixLength":24'));
  await call(cam, 'setNetworkDefaultGateway', { IPv4Address: '10.9.8.7' });
  assert.ok(JSON.stringify(await call(cam, 'getNetworkDefaultGateway')).includes('10.9.8.7'));
  await call(cam, 'getDNS');
  await call(cam, 'getNTP');
  assert.ok(JSON.stringify(await call(cam, 'getNetworkProtocols')).includes('RTSP'));

  const profile = await call(cam, 'createProfile', { name: 'mine' });
  const token = profile.$ ? profile.$.token : profile.token;
  await assert.rejects(call(cam, 'getStreamUri', { protocol: 'RTSP', profileToken: token }));
  await call(cam, 'addVideoSourceConfiguration', {
    profileToken: token, configurationToken: 'VideoSourceConfiguration0' });
  await call(cam, 'addVideoEncoderConfiguration', {
    profileToken: token, configurationToken: 'VideoEncoder3' });
  assert.ok((await call(cam, 'getStreamUri', { protocol: 'RTSP', profileToken: token })).uri.endsWith('/live3'));
  await call(cam, 'deleteProfile', token);

  const stranger = await connect({ username, password: password + 'x' });
  await assert.rejects(call(stranger, 'getDeviceInformation'), /not authorized/);
  console.log('a public ONVIF client agrees with the test camera');
}

// A camera that moves and sees a motion every second.
async function moves() {
  const cam = await connect({ username, password });
  const status = async () => (await call(cam, 'getStatus', {})).position;
  await call(cam, 'absoluteMove', { x: 0.5, y: -0.25, zoom: 0.5 });
  const arrives = async (x, y) => {
    for (let i = 0; i < 100; ++i) {
      const { x: pan, y: tilt } = await status();
      if (Math.abs(pan - x) < 0.02 && Math.abs(tilt - y) < 0.02) return true;
      await new Promise((resolve) => setTimeout(resolve, 100));
    }
    return false;
  };
  assert.ok(await arrives(0.5, -0.25), JSON.stringify(await status()));
  await call(cam, 'setPreset', { presetName: 'gate' });
  const preset = (await call(cam, 'getPresets', {})).gate.$.token;
  await call(cam, 'continuousMove', { x: -0.5, y: 0, zoom: 0 });
  await call(cam, 'stop', { panTilt: true, zoom: true });
  await call(cam, 'gotoPreset', { preset });
  assert.ok(await arrives(0.5, -0.25), JSON.stringify(await status()));

  const heard = await new Promise((resolve, reject) => {
    const told = [];
    setTimeout(() => reject(new Error('no motion within half a minute')), 30000).unref();
    cam.on('event', (message) => {
      told.push(JSON.stringify(message));
      if (told.filter((each) => each.includes('MotionAlarm')).length >= 3) resolve(told);
    });
  });
  assert.ok(heard.some((each) => each.includes('true')) && heard.some((each) => each.includes('false')), heard.join());
  console.log('it moves the camera, and hears what it sees');
  process.exit(0);
}

(process.argv[5] === 'moves' ? moves() : main()).catch((error) => {
  console.error(error.message || error);
  process.exit(1);
});
