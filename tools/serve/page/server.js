// Requests to the server, and its endless answers.
import {pause} from './dom.js';

// Who looks at the page (nobody in particular: ''), whether the page is a recorder's, and whether that one may do what needs a role.
export const {user, role, recorder} = document.documentElement.dataset;
const roles = ['watch', 'play', 'operate', 'manage'];
export const may = needed => roles.indexOf(role) >= roles.indexOf(needed);

// A request that got lost is asked again.
export async function get(path, options, tries = 5) {
  try {
    const answer = await fetch(path, {cache: 'no-store', ...options});
    // Logged out meanwhile, or somebody else's role changed.
    if (answer.status === 403 && (await answer.clone().json()).login) location.assign('login');
    return answer;
  } catch (error) {
    if (error.name === 'AbortError' || tries === 1) throw error;
    await pause(.2);
    return get(path, options, tries - 1);
  }
}

export async function ask(path, method = 'GET', body = undefined) {
  const answer = await get(path, {method, body});
  const said = await answer.json();
  if (!answer.ok) throw new Error(said.error);
  return said;
}

// The bytes of an answer, as they come.
class Reader {
  constructor(body) { this.reader = body.getReader(); this.bytes = new Uint8Array(0); }
  // False at the end of the answer.
  async more(least) {
    const parts = [this.bytes];
    for (let size = this.bytes.length; size < least;) {
      const {done, value} = await this.reader.read();
      if (done) return false;
      parts.push(value);
      size += value.length;
    }
    if (parts.length > 1) {
      this.bytes = new Uint8Array(await new Blob(parts).arrayBuffer());
    }
    return true;
  }
  async line() {
    for (let seen = 0;;) {
      const end = this.bytes.indexOf(10, seen);
      if (end >= 0) return new TextDecoder().decode(this.take(end + 1));
      seen = this.bytes.length;
      if (!await this.more(seen + 1)) return null;
    }
  }
  take(length) {
    const taken = this.bytes.subarray(0, length);
    this.bytes = this.bytes.subarray(length);
    return taken;
  }
}

// Records come one behind the other, each as a line of JSON and as many bytes as that says.
export async function readRecords(path, signal, use, method = 'GET', body = undefined) {
  const answer = await get(path, {signal, method, body});
  const reader = new Reader(answer.body);
  for (;;) {
    const line = await reader.line();
    if (line === null) return;
    const about = JSON.parse(line);
    const length = about.bytes || 0;
    if (!await reader.more(length)) return;
    await use(about, reader.take(length));
  }
}
