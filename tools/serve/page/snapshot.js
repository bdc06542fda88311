// The picture at hand as a file.
import {make} from './dom.js';

// `shown`: a canvas or a video; `time`: when it was taken, milliseconds.
export function snapshot(shown, site, time) {
  const canvas = document.createElement('canvas');
  canvas.width = shown.videoWidth ?? shown.width;
  canvas.height = shown.videoHeight ?? shown.height;
  canvas.getContext('2d').drawImage(shown, 0, 0);
  const name = `site${site}_${new Date(time).toISOString().replace(/[-:]/g, '')}.png`;
  canvas.toBlob(blob => {
    const link = make('a', document.body, {href: URL.createObjectURL(blob), download: name, hidden: true});
    link.click();
    setTimeout(() => { URL.revokeObjectURL(link.href); link.remove(); }, 10000);
  }, 'image/png');
}
