// Recordings of several sites played by one clock: every element follows it, gaps are jumped over together.
import {make, say} from './dom.js';
import {Stretches} from './stretches.js';

const turn = 60;           // milliseconds

export class PlayClock {
  // `parent` gets an article for each of `sites` ([number, name]). `told` is called with what the clock
  // does, as the server tells of its sessions; `refused` when a browser cannot play one of them.
  constructor(parent, sites, origin, told, refused) {
    this.told = told;
    this.refused = (error, site) => { if (!this.closed) { this.close(); refused(error, site); } };
    this.sites = sites;
    this.origin = origin;
    this.views = sites.map(([number, name]) => this.view(parent, number, name));
    this.rate = 1;
    this.moment = 0;
    this.timer = setInterval(() => this.step(), turn);
  }

  view(parent, number, name) {
    const card = make('article', parent, {className: 'picture', id: `played-${number}-0`});
    const stage = make('div', card, {className: 'stage'});
    const video = make('video', stage, {muted: true, playsInline: true});
    const line = make('div', card, {className: 'line'});
    const text = make('span', line, {className: 'dim'});
    const track = new Stretches(video, number, this.origin, '', (about, bytes) => ({type: about.type, part: bytes.subarray(0, about.video_bytes)}),
      error => this.refused(error, number));
    const view = {number, name, card, stage, video, text, line, track, shown: []};
    const measure = (now, frame) => {
      view.shown.push({at: frame.expectedDisplayTime, media: frame.mediaTime * 1000 + this.origin});
      if (view.shown.length > 15) view.shown.shift();
      video.dataset.pictures = frame.presentedFrames;
      video.dataset.time = Math.round(frame.mediaTime * 1000 + this.origin);
      video.requestVideoFrameCallback(measure);
    };
    video.requestVideoFrameCallback?.(measure);
    return view;
  }

  // The sound of one site, or of none.
  listen(number) {
    this.sound?.stop();
    this.sound = this.heard = null;
    this.heard = number;
    if (number === null) return;
    this.audio ||= make('audio', document.body, {id: 'played-sound'});
    this.sound = new Stretches(this.audio, number, this.origin, '&sound=1',
      (about, bytes) => ({type: about.sound_type, part: bytes.subarray(about.video_bytes)}), () => { this.listen(null); say('this browser does not play the sound'); });
    this.sound.start(this.now());
  }

  now() { return this.runs ? this.moment + (performance.now() - this.since) * this.rate : this.moment; }

  set(moment, rate = this.rate) {
    this.moment = moment;
    this.since = performance.now();
    this.rate = rate;
    for (const view of this.views) view.shown = [];
  }

  seek(moment) {
    this.runs = false;
    this.paused = false;
    this.set(moment);
    for (const {track} of this.views) track.start(moment);
    this.sound?.start(moment);
  }

  pause(on) {
    this.set(this.now());
    this.paused = on;
    if (on) this.runs = false;
    this.tell();
  }

  speed(rate) { this.set(this.now(), rate); this.tell(); }

  close() {
    this.closed = true;
    clearInterval(this.timer);
    this.listen(null);
    for (const {track} of this.views) track.stop();
  }

  step() {
    let now = this.now();
    const tracks = this.views.map(view => view.track);
    for (const track of this.sound ? [...tracks, this.sound] : tracks) track.read(now);
    if (this.closed) return;
    const states = tracks.map(track => track.at(now));
    // It stands while it is not known what there is, or not there yet; sound is not waited for.
    const waits = states.some((state, i) => state === 'wait' || (state === 'yes' && !this.runs && !this.paused && !tracks[i].ready));
    if (states.every(state => state === 'gap')) {
      const next = Math.min(...tracks.map(track => track.after(now)));
      this.ended = next === Infinity;
      if (!this.ended) this.set(now = next);
    } else this.ended = false;
    const runs = !this.paused && !waits && !this.ended;
    if (runs !== Boolean(this.runs)) {
      this.moment = now;
      this.since = performance.now();
      this.runs = runs;
    }
    for (const track of tracks) track.follow(now, runs ? this.rate : 0);
    this.sound?.follow(now, runs && this.rate <= 2 ? this.rate : 0);
    this.views.forEach((view, i) => { view.card.style.opacity = states[i] === 'gap' ? .2 : 1; });
    if (!((this.turns = (this.turns || 0) + 1) % 4)) this.tell();
  }

  // How far the sites' pictures on the screen are apart, milliseconds: of each picture is known what it is of and
  // when it was shown.
  skew() {
    const offs = this.views.filter(view => view.shown.length >= 8).map(view => {
      const all = view.shown.map(each => each.media - each.at * this.rate).sort((a, b) => a - b);
      return all[all.length >> 1];
    });
    return offs.length < 2 ? null : Math.max(...offs) - Math.min(...offs);
  }

  tell() {
    this.told({time: this.now(), rate: this.paused ? 0 : this.rate, ended: Boolean(this.ended), skew: this.runs ? this.skew() : null});
  }
}
