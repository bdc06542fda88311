// The recording of one site, as it was recorded, played by a media element that follows a clock.
import {get, readRecords} from './server.js';
import {canPlay} from './live_track.js';

const Source = globalThis.ManagedMediaSource || globalThis.MediaSource;
const ahead = 15000;       // so much is read before it is needed, milliseconds
const behind = 20000;      // and kept
const near = 15;           // off by less it is left alone
const far = 400;           // off by more it is sought, between them it hurries or lingers

// Moments are milliseconds since 1970; `origin` is where the element's times begin.
export class Stretches {
  // `bytesOf(about, bytes)` gives the type and the bytes of a stretch that this element plays.
  constructor(element, site, origin, query, choose, failed) {
    Object.assign(this, {element, site, origin, query, choose, failed});
    element.addEventListener('error', () => this.source && failed(element.error));
  }

  // From that moment on.
  start(moment) {
    this.stop();
    this.abort = new AbortController();
    this.from = this.next = moment;
    this.known = [];         // what was read: {begin, end}
    this.ended = false;      // nothing follows what was read
    this.reading = false;
    const source = this.source = new Source();
    this.element.disableRemotePlayback = true;
    const url = URL.createObjectURL(source);
    source.addEventListener('sourceopen', () => URL.revokeObjectURL(url), {once: true});
    this.element.src = url;
  }

  stop() {
    this.abort?.abort();
    if (!this.source) return;
    this.source = this.buffer = null;
    this.element.removeAttribute('src');
    this.element.load();
  }

  // Reads on while the clock comes near.
  async read(moment) {
    if (this.reading || this.ended || !this.source || this.source.readyState !== 'open' || this.next - moment > ahead) return;
    this.reading = true;
    const {signal} = this.abort;
    try {
      await readRecords(`/stretch?site=${this.site}&ms=${Math.floor(this.next)}&origin=${this.origin / 1000}${this.query}`, signal,
        async (about, bytes) => {
          if (signal.aborted) return;
          if (about.error) throw new Error(about.error);
          const {type, part} = this.choose(about, bytes);
          if (about.unplayable || (type && !canPlay(type))) { this.failed(); return; }
          if (part.length) await this.append(type, part, moment);
          if (signal.aborted) return;
          if (about.end > about.begin) this.known.push({begin: about.begin, end: about.end});
          this.ended = !about.next;
          this.next = about.next;
        });
    } catch (error) {
      if (!signal.aborted) this.failed(error);
    }
    if (!signal.aborted) this.reading = false;
  }

  async append(type, bytes, moment) {
    const source = this.source;
    const done = () => new Promise(finished => this.buffer.addEventListener('updateend', finished, {once: true}));
    if (!this.buffer) this.buffer = source.addSourceBuffer(type);
    else if (type !== this.type) this.buffer.changeType(type);
    this.type = type;
    const old = (moment - behind - this.origin) / 1000;
    if (this.buffer.buffered.length && this.buffer.buffered.start(0) < old - 5) {
      this.buffer.remove(0, old);
      await done();
    }
    if (this.source !== source) return;
    this.buffer.appendBuffer(bytes);
    await done();
  }

  // Whether there is something then: 'yes', 'gap', or 'wait' while that is not known.
  at(moment) {
    if (this.known.some(each => each.begin <= moment && moment < each.end)) return 'yes';
    return this.ended || (moment >= this.from && moment < this.next && this.known.length) || this.knownGap(moment) ? 'gap' : 'wait';
  }

  // In front of what was read first nothing was recorded.
  knownGap(moment) { return this.known.length > 0 && moment < this.known[0].begin && moment >= this.from; }

  // The beginning of what follows a moment in a gap; infinite where nothing does.
  after(moment) {
    const later = this.known.map(each => each.begin).filter(begin => begin > moment);
    if (!this.ended && this.next > moment) later.push(this.next);
    return Math.min(...later, Infinity);
  }

  // Has the element show that moment, at so many times the usual speed; 0 stands still.
  follow(moment, rate) {
    const {element} = this;
    if (element.readyState === 0) return;
    const has = this.at(moment) === 'yes';
    const off = this.off = this.origin + element.currentTime * 1000 - moment;
    if (!has || rate === 0) {
      if (!element.paused) element.pause();
      if (has && Math.abs(off) > near * 2 && !element.seeking) element.currentTime = (moment - this.origin) / 1000;
      return;
    }
    if (Math.abs(off) > far * Math.max(1, rate)) {
      if (!element.seeking) element.currentTime = (moment - this.origin) / 1000 + .03;
    } else {
      const nudge = Math.abs(off) < near ? 0 : Math.max(-.2, Math.min(.2, off / 1000));
      element.playbackRate = rate * (1 - nudge);
    }
    if (element.paused) element.play().catch(() => {});
  }

  // The picture of that moment can be shown now.
  get ready() { return this.element.readyState >= 2 && !this.element.seeking; }
}
