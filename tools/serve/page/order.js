// In which order the sites stand: changed by dragging a site's name, or with the arrows on it, and remembered.
import {remember, remembered} from './dom.js';

let order = remembered('order', []);  // numbers; others behind, by their numbers

const place = number => { const at = order.indexOf(number); return at < 0 ? order.length + number : at; };
export const inOrder = cards => [...cards].sort((one, other) => place(one.number) - place(other.number));

// `all`: gives the cards; `changed` is called when they stand otherwise.
export function makeMovable(card, all, changed) {
  const handle = card.name;
  const put = (target, behind) => {
    const numbers = inOrder(all()).map(each => each.number).filter(number => number !== card.number);
    numbers.splice(numbers.indexOf(target.number) + (behind ? 1 : 0), 0, card.number);
    order = numbers;
    remember('order', order);
    changed();
  };
  handle.tabIndex = 0;
  handle.onkeydown = event => {
    const step = {ArrowLeft: -1, ArrowRight: 1}[event.key];
    if (!step) return;
    event.preventDefault();
    event.stopPropagation();
    const cards = inOrder(all()), target = cards[cards.indexOf(card) + step];
    if (target) { put(target, step > 0); handle.focus(); }
  };
  handle.onpointerdown = event => {
    event.preventDefault();
    handle.focus();
    handle.setPointerCapture(event.pointerId);
    handle.onpointermove = move => {
      const over = document.elementFromPoint(move.clientX, move.clientY)?.closest('#live > article');
      const cards = inOrder(all()), target = cards.find(each => each.card === over);
      if (!target || target === card) return;
      const box = over.getBoundingClientRect(), behind = cards.indexOf(target) > cards.indexOf(card);
      // Only past the middle: the other one would be under the pointer again.
      const part = (move.clientX - box.left) / box.width, below = (move.clientY - box.top) / box.height;
      if (behind ? part > .4 || below > .6 : part < .6 || below < .4) put(target, behind);
    };
    handle.onpointerup = handle.onpointercancel = () => { handle.onpointermove = null; };
  };
}
