// The sites as they are now.
import {$, make, pause, remember, remembered, tell} from './dom.js';
import {LiveTrack, canPlay, canPlayVideo} from './live_track.js';
import {inOrder, makeMovable} from './order.js';
import {draw} from './picture.js';
import {Mover} from './ptz.js';
import {ask, may, readRecords} from './server.js';
import {snapshot} from './snapshot.js';
import {Zoom} from './zoom.js';

const cards = new Map();     // by the site's number
const layouts = [1, 4, 9, 16];
let layout = remembered('layout', 4);
let first = 0;               // of the sites that are shown
let heard = null;            // the number of the site that is

// A site whose stream the browser does not play gets pictures that the server decodes.
class Card {
  constructor(number) {
    this.number = number;
    this.unplayable = null;  // the codec that could not be played
    this.card = make('article', $('live'), {className: 'picture', id: 'camera-' + number});
    this.stage = make('div', this.card, {className: 'stage'});
    this.video = make('video', this.stage, {muted: true, playsInline: true, hidden: true});
    this.canvas = make('canvas', this.stage);
    const text = make('div', this.card);
    const line = make('div', text, {className: 'line'});
    this.name = make('span', line, {className: 'name'});
    makeMovable(this, () => cards.values(), arrange);
    const buttons = make('span', line);
    this.listen = make('button', buttons, {className: 'listen', textContent: 'Listen'});
    this.listen.onclick = () => hear(heard === number ? null : number);
    this.full = make('button', buttons, {className: 'full', textContent: 'Full screen'});
    this.full.onclick = () => (document.fullscreenElement ? document.exitFullscreen() :
      this.card.requestFullscreen()).catch(tell);
    this.move = make('button', buttons, {className: 'move', textContent: 'Move', hidden: true});
    this.move.onclick = () => this.toggleMoving().catch(tell);
    this.still = make('button', buttons, {className: 'still', textContent: 'Snapshot'});
    this.still.onclick = () => this.snapshot();
    this.record = make('button', buttons, {className: 'record', textContent: 'Record', hidden: true});
    this.record.onclick = () => this.toggleRecording().catch(tell);
    this.rates = make('div', text, {className: 'dim rates'});
    this.state = make('div', text, {className: 'bad'});
    this.mover = new Mover(number, this.stage, text);
    this.zoom = new Zoom(this.stage, () => this.mover.on);
    this.failures = [];      // when the browser gave up, milliseconds
    this.track = new LiveTrack(this.video, () => this.tryAgain());
  }

  // Something of the stream was lost, perhaps; or the browser does not play it.
  tryAgain() {
    this.failures = [...this.failures.filter(time => time > Date.now() - 60000), Date.now()];
    if (this.failures.length < 3) video.again(); else this.refuse();
  }

  refuse() {
    this.unplayable = this.codec;
    this.show(this.canvas);
    keep();
  }

  show(element) {
    this.video.hidden = element !== this.video;
    this.canvas.hidden = element !== this.canvas;
  }

  // Whether it is watched as the camera sends it.
  playable() {
    return this.unplayable !== this.codec && (this.codec === 'JPEG' || (canPlayVideo && ['H264', ''].includes(this.codec)));
  }

  use(about, bytes) {
    if (about.unplayable || (about.type && !canPlay(about.type))) {
      this.track.end();
      this.refuse();
    } else if (about.type) {
      this.show(this.video);
      this.track.begin(about, bytes);
    } else if (about.width) {
      this.show(this.canvas);
      return draw(this.canvas, about, bytes);
    } else if (bytes.length) {
      this.track.add(bytes);
    }
  }

  status(site) {
    this.codec = site.watched_codec ?? site.codec;
    this.name.textContent = this.name.title = site.url;
    this.rates.textContent = `${site.codec} ${site.width}x${site.height}  ` +
      `${site.recent_fps.toFixed(1)} fps  ${site.recent_kbps.toFixed(0)} kbit/s  lost ${site.lost_packets}`;
    this.state.textContent = site.state === 'playing' ? '' :
      site.state + (site.detail || site.fault ? ': ' + (site.detail || site.fault) : '');
    this.card.classList.toggle('recording', Boolean(site.recording));
    this.record.hidden = !may('operate') || site.recording === undefined;
    this.record.textContent = site.recording ? 'Stop recording' : 'Record';
    this.listen.hidden = !site.audio_codec;
    this.move.hidden = !may('operate') || !site.onvif;
  }

  async toggleMoving() {
    const done = this.mover.toggle();
    this.move.setAttribute('aria-pressed', this.mover.on);
    this.zoom.all();
    await done;
  }

  snapshot() {
    const {video, canvas} = this;
    if (video.hidden) snapshot(canvas, this.number, Date.now());
    else snapshot(video, this.number, this.track.origin + video.currentTime * 1000);
  }

  async toggleRecording() {
    const on = this.card.classList.contains('recording') ? 0 : 1;
    await ask(`/record?site=${this.number}&on=${on}`, 'PUT');
    document.dispatchEvent(new Event('recorded'));
  }
}

const shown = () => inOrder(cards.values()).slice(first, first + layout);

export function showStatus(sites) {
  let changed = false;
  for (const [number, card] of cards) {
    if (sites.some(site => site.site === number)) continue;
    card.card.remove();
    cards.delete(number);
    changed = true;
  }
  for (const site of sites) {
    changed ||= !cards.has(site.site);
    if (!cards.has(site.site)) cards.set(site.site, new Card(site.site));
    cards.get(site.site).status(site);
  }
  if (changed) arrange(); else keep();
}

// --- Which sites are seen -----------------------------------------------------------------------
function arrange() {
  const pages = Math.max(1, Math.ceil(cards.size / layout));
  first = Math.min(first, (pages - 1) * layout);
  const seen = new Set(shown());
  for (const card of cards.values()) card.card.hidden = !seen.has(card);
  inOrder(cards.values()).forEach((card, place) => { card.card.style.order = place; });
  $('live').style.setProperty('--columns', Math.sqrt(layout));
  choices($('layouts'), layouts, layout, many => { layout = many; remember('layout', many); });
  choices($('pages'), pages > 1 ? [...Array(pages).keys()].map(page => page + 1) : [], first / layout + 1,
    page => { first = (page - 1) * layout; });
  keep();
}

function choices(parent, values, chosen, choose) {
  parent.replaceChildren();
  for (const value of values) {
    const button = make('button', parent, {textContent: value});
    button.setAttribute('aria-pressed', value === chosen);
    button.onclick = () => { choose(value); arrange(); };
  }
}

// --- Their streams ------------------------------------------------------------------------------
// An endless answer for the sites that it is for at this moment.
class Stream {
  constructor(path) { this.path = path; this.wanted = ''; }
  want(query) {
    if (query === this.wanted) return;
    this.wanted = query;
    this.stop?.abort();
    if (query) this.run(query, this.stop = new AbortController());
  }
  // From the newest key pictures on.
  again() {
    this.wanted = '';
    keep();
  }
  async run(query, stop) {
    while (!stop.signal.aborted) {
      try {
        await readRecords(this.path + '?' + query, stop.signal, (about, bytes) =>
          stop.signal.aborted ? null : cards.get(about.site)?.use(about, bytes));
      } catch (error) { /* the status tells */ }
      if (!stop.signal.aborted) await pause(2);
    }
  }
}
const video = new Stream('/video'), pictures = new Stream('/live');

function keep() {
  const seen = document.hidden ? [] : shown();
  const numbers = (playable) => seen.filter(card => card.playable() === playable).map(card => card.number).join();
  const sites = numbers(true), others = numbers(false);
  const width = Math.max(160, ...seen.map(card => Math.ceil(card.card.clientWidth * devicePixelRatio / 160) * 160));
  video.want(sites && 'sites=' + sites);
  pictures.want(others && `sites=${others}&width=${width}`);
}
document.addEventListener('visibilitychange', keep);

// --- Sound --------------------------------------------------------------------------------------
const audio = new Audio();
const sound = new LiveTrack(audio, () => { hear(null); tell(new Error('this browser does not play the sound')); });
let listening = null;

function hear(number) {
  listening?.abort();
  sound.end();
  heard = number;
  for (const card of cards.values()) card.listen.setAttribute('aria-pressed', card.number === number);
  if (number === null) return;
  const stop = listening = new AbortController();
  readRecords('/sound?site=' + number, stop.signal, (about, bytes) => {
    if (stop.signal.aborted) return;
    if (about.error) throw new Error(about.error);
    if (about.type) sound.begin(about, bytes); else if (bytes.length) sound.add(bytes);
    audio.id ||= 'sound';
  }).catch(error => { if (!stop.signal.aborted) { hear(null); tell(error); } });
}
document.body.append(audio);
