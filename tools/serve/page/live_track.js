// Live fragments played by a media element (Media Source Extensions), near their end.

const Source = globalThis.ManagedMediaSource || globalThis.MediaSource;

const wanted = .25;    // seconds that are kept ready, for networks are uneven
const late = 1;        // more than that is left out
const kept = 10;       // seconds behind what is shown, and twice that before they are removed

export const canPlay = type => Boolean(Source) && Source.isTypeSupported(type);
export const canPlayVideo = canPlay('video/mp4; codecs="avc1.42C01E"');

export class LiveTrack {
  // `failed` is called once when the browser cannot go on with it.
  constructor(element, failed) {
    this.element = element;
    this.failed = failed;
    this.waiting = [];
    this.type = null;
    element.disableRemotePlayback = true;
    element.addEventListener('error', () => this.type && this.fail());
  }

  // What follows has another header.
  begin(about, header) {
    if (about.type === this.type && about.origin === this.origin) {
      this.waiting.push(header);
      return;
    }
    this.end();  // times that count from elsewhere would lie in front of those that were played
    this.origin = about.origin;
    if (!canPlay(about.type)) {
      this.fail();
      return;
    }
    this.type = about.type;
    this.waiting = [header];
    const source = this.source = new Source();
    const url = URL.createObjectURL(source);
    source.addEventListener('sourceopen', () => {
      URL.revokeObjectURL(url);
      if (this.source !== source || this.buffer) return;
      this.buffer = source.addSourceBuffer(this.type);
      this.buffer.addEventListener('updateend', () => this.step());
      this.step();
    });
    this.element.src = url;
  }

  add(fragment) {
    if (!this.type) return;
    this.waiting.push(fragment);
    this.step();
  }

  end() {
    this.type = this.source = this.buffer = null;
    this.waiting = [];
    this.element.removeAttribute('src');
    this.element.load();
  }

  fail() {
    this.end();
    this.failed();
  }

  step() {
    const buffer = this.buffer;
    if (!buffer || buffer.updating || this.source.readyState !== 'open') return;
    const times = buffer.buffered;
    if (times.length) {
      this.follow(times.start(times.length - 1), times.end(times.length - 1));
      if (this.element.currentTime - times.start(0) > 2 * kept) {
        buffer.remove(0, this.element.currentTime - kept);
        return;
      }
    }
    if (!this.waiting.length) return;
    const size = this.waiting.reduce((sum, each) => sum + each.length, 0);
    const bytes = new Uint8Array(size);
    let at = 0;
    for (const each of this.waiting) { bytes.set(each, at); at += each.length; }
    this.waiting = [];
    try {
      buffer.appendBuffer(bytes);
    } catch (error) {
      if (error.name === 'QuotaExceededError') buffer.remove(0, this.element.currentTime);
      else this.fail();
    }
  }

  // From `start` to `end` there is something to play.
  follow(start, end) {
    const element = this.element;
    const ready = end - element.currentTime;
    if (element.currentTime < start || ready > late || ready < -late) {
      element.currentTime = Math.max(start, end - wanted);
    }
    element.playbackRate = ready > 2 * wanted ? 1.1 : 1;
    if (element.paused) element.play().catch(() => {});
    // For who shares the server's clock.
    element.dataset.behind = (Date.now() - this.origin) / 1000 - element.currentTime;
    element.dataset.pictures = element.getVideoPlaybackQuality?.().totalVideoFrames || 0;
  }
}
