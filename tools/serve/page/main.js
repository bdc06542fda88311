// The page's beginning: who is there, and what the sites do.
import {$, clock, isLocal, pause, remember, say, tell} from './dom.js';
import {showStatus} from './live.js';
import {keepCalendar} from './recordings.js';
import './storage.js';
import {ask, may, user} from './server.js';
import './audit.js';
import './sites.js';

async function status() {
  const said = await ask('/status');
  $('clock').textContent = clock(said.time, 0, 19) + (isLocal() ? '' : ' UTC');
  showStatus(said.sites);
}

async function keepStatus() {
  for (let lost = false;; await pause(1)) {
    try {
      await status();
      if (lost) say('');
      lost = false;
    } catch (error) {
      say('no connection: ' + error.message);
      lost = true;
    }
  }
}

async function begin() {
  $('all').hidden = false;
  $('leave').hidden = !user;
  $('who').textContent = user;
  $('recorded').hidden = !may('play');
  await status();
  keepStatus();
  if (may('play')) keepCalendar();
}

// Times as they are read in UTC, or as it is here.
function showZone() {
  $('zone').textContent = isLocal() ? 'local time' : 'UTC';
  document.dispatchEvent(new Event('zone'));
}
$('zone').onclick = () => { remember('zone', isLocal() ? 'UTC' : 'local'); showZone(); };
showZone();
document.addEventListener('recorded', () => status().catch(tell));

begin().catch(tell);
