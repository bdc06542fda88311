// What was recorded: the month, one of its days, and the timeline.
import {$, clock, isLocal, make, pause, say, shift, tell, utc} from './dom.js';
import {play} from './player.js';
import {ask} from './server.js';
import {read, showWindow, useSeek} from './timeline.js';

const kRenewed = 15;  // seconds

let shown = new Date(), day = null;
let drawnMonth = '', drawnDay = '';  // what they show: nothing is made anew under somebody's fingers without need

const shownMonth = () => shown.toISOString().slice(0, 7);

// Recordings come while the page is open.
export async function keepCalendar() {
  for (;; await pause(kRenewed)) {
    if (!document.hidden) await calendar().catch(tell);
  }
}

async function calendar() {
  const month = shownMonth();
  const first = new Date(month + '-01T00:00:00Z');
  const length = new Date(Date.UTC(first.getUTCFullYear(), first.getUTCMonth() + 1, 0)).getUTCDate();
  const starts = [...Array(length + 1).keys()].map(i => first.getTime() / 1000 + i * 86400).map(at => at + shift(at));
  const found = await ask(isLocal() ? '/days?starts=' + starts : '/days?month=' + month);
  if (month !== shownMonth()) return;  // somebody went on to another one
  const news = JSON.stringify([month, isLocal(), found.days]);
  if (news !== drawnMonth) drawMonth(month, first, length, found.days);
  drawnMonth = news;
  if (day !== null && await listDay()) await read();
}

function drawMonth(month, first, length, days) {
  $('title').textContent = month;
  $('month').replaceChildren();
  let row = make('tr', $('month'));
  for (const name of 'MTWTFSS') make('td', row, {textContent: name, className: 'dim'});
  for (let number = 1, column = (first.getUTCDay() + 6) % 7; number <= length; ++number, ++column) {
    if (number === 1 || column % 7 === 0) {
      row = make('tr', $('month'));
      if (number === 1) for (let i = 0; i < column; ++i) make('td', row);
    }
    const cell = make('td', row);
    if (!days.includes(number)) { cell.textContent = number; continue; }
    const start = first.getTime() / 1000 + (number - 1) * 86400;
    const button = make('button', cell, {textContent: number});
    button.dataset.day = month + '-' + String(number).padStart(2, '0');
    button.setAttribute('aria-pressed', day === start);
    button.onclick = () => showDay(start).catch(tell);
  }
}

async function showDay(start) {
  day = start;
  for (const button of $('month').querySelectorAll('button'))
    button.setAttribute('aria-pressed', button.dataset.day === utc(start, 0, 10));
  await listDay();
  const begin = start + shift(start);
  await showWindow(begin, begin + 86400);
}

// Whether there is news.
async function listDay() {
  const begin = day + shift(day);
  const found = await ask(`/recordings?from=${begin}&to=${begin + 86399}`);
  const news = JSON.stringify([begin, found]);
  if (news === drawnDay) return false;
  drawnDay = news;
  $('list').replaceChildren();
  const entries = [...found.spans.map(span => [span, 'span', span.name]),
    ...found.events.map(event => [event, 'event', event.kind.replace('_', ' ')])];
  entries.sort((a, b) => a[0].start - b[0].start);
  for (const [item, kind, name] of entries) {
    const entry = make('button', $('list'), {className: kind,
      textContent: `${clock(item.start)} – ${clock(item.end)}  site ${item.site}  ${name}`});
    entry.onclick = () => play(item.start);
  }
  if (!found.complete) say('some recordings could not be read');
  return true;
}

useSeek(play);

function move(months) {
  shown = new Date(Date.UTC(shown.getUTCFullYear(), shown.getUTCMonth() + months, 15));
  calendar().catch(tell);
}
$('earlier').onclick = () => move(-1);
$('later').onclick = () => move(1);
document.addEventListener('zone', () => calendar().then(() => day !== null && showDay(day)).catch(tell));
document.addEventListener('recorded', () => calendar().catch(tell));
document.addEventListener('visibilitychange', () => { if (!document.hidden) calendar().catch(tell); });
document.addEventListener('kept', () => { if (day !== null) read().catch(tell); });
