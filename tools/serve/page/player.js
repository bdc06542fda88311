// Recordings played, all sites in step. Forward at usual speeds the browser plays them as they were recorded; for
// steps, backward, fast, and what it cannot play, the server decodes and sends pictures.
import {mark, offer} from './clips.js';
import {$, clock, make, say, tell} from './dom.js';
import {canPlayVideo} from './live_track.js';
import {draw} from './picture.js';
import {PlayClock} from './play_clock.js';
import {ask, readRecords} from './server.js';
import {snapshot} from './snapshot.js';
import {Zoom} from './zoom.js';

let playing = null;
const refused = new Set();  // sites whose recordings the browser did not play

// So much around a moment is played in a row, seconds.
const around = 43200;

// As the server numbers speeds: 1 is the usual one, each further one twice as fast. The browser plays these.
const own = {.5: .5, 1: 1, 2: 2, 3: 4};
const ladder = [-6, -5, -4, -3, -2, -1, .5, 1, 2, 3, 4, 5, 6];

// What was recorded, from this moment on; seconds.
export async function play(at) {
  if (playing && playing.sites && at >= playing.from && at <= playing.to) return seek(at * 1000);
  close();
  const session = playing = {from: Math.max(1, at - around), to: at + around, turn: 0, speed: 1, time: at * 1000};
  $('player').hidden = false;
  try {
    const {spans} = await ask(`/recordings?from=${session.from}&to=${session.to}`);
    if (session !== playing) return;
    session.names = Object.fromEntries(spans.map(span => [span.site, span.name]));
    session.sites = Object.entries(session.names).map(([number, name]) => [Number(number), name]);
    if (!session.sites.length) throw new Error('nothing was recorded then');
    offer(session.sites);
    begin(session, session.time, 1);
  } catch (error) {
    if (session === playing) { say('cannot play: ' + error.message); close(); }
  }
}

const byClock = session => canPlayVideo && !session.sites.some(([number]) => refused.has(number));

// At that speed; 0 stands still.
function begin(session, moment, speed) {
  end(session);
  if (own[speed] && byClock(session)) beginClock(session, moment, speed); else beginPictures(session, moment, speed);
}

function end(session) {
  session.clock?.close();
  session.stop?.abort();
  session.clock = session.stop = session.id = null;
  session.views = {};
  $('played').replaceChildren();
}

function showHeard(session) {
  for (const button of $('played').querySelectorAll('.listen')) button.setAttribute('aria-pressed', Number(button.dataset.site) === session.clock?.heard);
}

function beginClock(session, moment, speed) {
  const origin = session.from * 1000;
  session.clock = new PlayClock($('played'), session.sites, origin, state => {
    if (session !== playing) return;
    showMoment(session, {time: Math.round(state.time), end_of_file: state.ended,
      speed: state.rate && Number(Object.keys(own).find(each => own[each] === state.rate))});
    $('played').dataset.skew = state.skew ?? '';
    showHeard(session);
  }, (error, site) => {
    refused.add(site);
    if (error) tell(error);
    if (session === playing) begin(session, session.time, session.speed);
  });
  for (const view of session.clock.views) {
    dress(view, view.video, () => origin + view.video.currentTime * 1000);
    view.text.textContent = `${view.number}: ${view.name}`;
    const listen = make('button', view.line, {className: 'listen', textContent: 'Listen'});
    listen.onclick = () => {
      session.clock.listen(session.clock.heard === view.number ? null : view.number);
      showHeard(session);
    };
    listen.dataset.site = view.number;
  }
  session.clock.rate = own[speed];
  session.clock.seek(moment);
}

async function beginPictures(session, moment, speed) {
  const stop = session.stop = new AbortController();
  const waiting = session.waiting = [];  // what the transport is to do once it is there
  try {
    const query = `from=${session.from}&to=${session.to}&ms=${Math.round(moment)}&speed=${Math.round(speed)}`;
    await readRecords(`/play?${query}`, stop.signal, async (about, jpeg) => {
      if (stop.signal.aborted) return;
      if (about.error) throw new Error(about.error);
      if (about.session) {
        session.id = about.session;
        for (const word of waiting) transport(word);
      } else if ('speed' in about) {
        showMoment(session, about);
        for (const [key, view] of Object.entries(session.views)) view.shown.style.opacity = about.gaps.includes(parseInt(key)) ? .2 : 1;
      } else if (jpeg.length) {
        const key = `${about.site}-${about.channel}`;
        const view = session.views[key] ||= playedCard(key, about.site);
        await draw(view.shown, about, jpeg);
        view.shown.dataset.time = about.time;
        view.text.textContent = `${about.site}: ${session.names[about.site]}  ${clock(about.time / 1000, 11, 23)}`;
      }
    });
  } catch (error) {
    if (!stop.signal.aborted) { say('cannot play: ' + error.message); close(); }
  }
}

function playedCard(key, site) {
  const card = make('article', $('played'), {className: 'picture', id: 'played-' + key});
  const stage = make('div', card, {className: 'stage'});
  const line = make('div', card, {className: 'line'});
  const shown = make('canvas', stage);
  const view = {number: site, stage, line, shown, text: make('span', line, {className: 'dim'})};
  dress(view, shown, () => Number(shown.dataset.time));
  return view;
}

// What is done with a picture that is played; `time`: when it was taken.
function dress(view, shown, time) {
  view.zoom = new Zoom(view.stage);
  make('button', view.line, {className: 'still', textContent: 'Snapshot'}).onclick = () => snapshot(shown, view.number, time());
}

function showMoment(session, state) {
  session.speed = state.speed;
  session.time = state.time;
  $('moment').textContent = clock(state.time / 1000, 0, 23);
  $('moment').dataset.time = state.time;
  $('speed').textContent = state.end_of_file ? 'end' : state.speed === 0 ? 'paused' :
    state.speed === .5 ? '0.5x' : (state.speed < 0 ? 'back ' : '') + 2 ** (Math.abs(state.speed) - 1) + 'x';
  $('speed').dataset.speed = state.speed;
  document.dispatchEvent(new CustomEvent('moment', {detail: state.time}));
}

export function close() {
  if (playing) end(playing);
  playing = null;
  $('player').hidden = true;
  document.dispatchEvent(new CustomEvent('moment', {detail: null}));
}

function seek(moment) {
  if (playing.clock) {
    const {paused} = playing.clock;
    playing.clock.seek(moment);
    playing.clock.pause(Boolean(paused));
  } else if (playing.id) {
    ask(`/transport?session=${playing.id}&do=seek&ms=${Math.round(moment)}`).catch(tell);
  }
}

// `word`: what the transport is to do.
function transport(word) {
  const session = playing;
  if (!session || !session.sites) return;
  if (session.clock) {
    if (word === 'pause' || word === 'resume') session.clock.pause(word === 'pause');
    else if (word === 'forward' || word === 'backward') {
      begin(session, session.clock.now(), 0);
      session.waiting.push(word);
    } else goTo(session, word);
    return;
  }
  const forwardAgain = word === 'resume' || (word === 'faster' && session.speed <= 0 && session.speed >= -1) ||
    (word === 'slower' && session.speed === 4);
  if (forwardAgain && byClock(session)) begin(session, session.time, word === 'slower' ? 3 : 1);
  else if (session.id) ask(`/transport?session=${session.id}&turn=${++session.turn}&do=${word}`).catch(tell);
}

// The next speed, faster or slower than what the browser plays.
function goTo(session, word) {
  const {clock: playedBy} = session;
  const speed = playedBy.paused ? (word === 'faster' ? 1 : -1) :
    ladder[ladder.indexOf(Number(Object.keys(own).find(each => own[each] === playedBy.rate))) + (word === 'faster' ? 1 : -1)];
  if (!own[speed]) { begin(session, playedBy.now(), speed); return; }
  playedBy.speed(own[speed]);
  if (playedBy.paused) playedBy.pause(false);
}

for (const button of $('controls').querySelectorAll('[data-do]')) {
  button.onclick = () => transport(button.dataset.do);
}
$('stop').onclick = close;
const marking = which => { if (playing && playing.sites) mark(which, playing.time / 1000); };
$('mark-from').onclick = () => marking('from');
$('mark-to').onclick = () => marking('to');

const keys = {
  ' ': () => playing.speed === 0 ? 'resume' : 'pause', k: () => 'pause', j: () => 'slower', l: () => 'faster',
  ArrowLeft: () => 'backward', ArrowRight: () => 'forward'};
document.addEventListener('keydown', event => {
  if (!playing || event.ctrlKey || event.altKey || event.metaKey || event.target.closest('input, select, .name')) return;
  if (event.key === 'Escape') { close(); return; }
  const key = event.key.length === 1 ? event.key.toLowerCase() : event.key;
  if (key === 'i' || key === 'o') marking(key === 'i' ? 'from' : 'to');
  if (!keys[key] || (key === ' ' && event.target.closest('button'))) return;
  event.preventDefault();
  transport(keys[key]());
});
