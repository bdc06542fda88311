// Small things that all of the page uses.

export const $ = id => document.getElementById(id);
export const utc = (seconds, from = 11, to = 19) => new Date(seconds * 1000).toISOString().slice(from, to);
// The same in the time that was chosen, UTC or this browser's, with a blank for the T.
export const isLocal = () => remembered('zone', 'UTC') === 'local';
export const shift = seconds => isLocal() ? new Date(seconds * 1000).getTimezoneOffset() * 60 : 0;
export const clock = (seconds, from = 11, to = 19) => utc(seconds - shift(seconds), from, to).replace('T', ' ');
export const pause = seconds => new Promise(done => setTimeout(done, seconds * 1000));
export const say = text => { $('message').textContent = text; };
export const tell = error => say(error.message);

export function make(tag, parent, properties = {}) {
  return parent.appendChild(Object.assign(document.createElement(tag), properties));
}

// What the browser keeps for this page; it may refuse.
export function remembered(name, otherwise) {
  try { return JSON.parse(localStorage.getItem('orvanta.' + name)) ?? otherwise; } catch { return otherwise; }
}
export function remember(name, value) {
  try { localStorage.setItem('orvanta.' + name, JSON.stringify(value)); } catch { /* until the page is left */ }
}
