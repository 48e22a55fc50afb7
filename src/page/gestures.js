// @ts-check
// Pointer, wheel and keys over a pane, as wishes of time and scale. Everything that is dragged can be done by keys, too.

import { zoomed } from "./scales.js";
import { SCALE_WIDTH, yOf } from "./plot.js";

const CLICK_PIXELS = 4;
const WHEEL = 1.25;

/**
 * @typedef {import("./pane.js").Pane} Pane
 * @typedef {{view: import("./view.js").TimeView, gutter(): number, changed(): void, fit(): void, follow(on: boolean): void,
 *            setBand(band: {from: number, to: number} | null): void, setHover(time: number | null): void,
 *            setCursor(name: "a" | "b", time: number | null): void, activeCursor(): "a" | "b"}} Hands
 */

/** @param {Pane} pane @param {Hands} hands */
export function listen(pane, hands) {
    const { plot } = pane;
    /** @type {Map<number, PointerEvent>} */
    const pointers = new Map();
    /** @type {{x: number, y: number, moved: boolean, shift: boolean, scale: import("./plot.js").Scale | null} | null} */
    let drag = null;
    const placeOf = (/** @type {MouseEvent} */ event) => {
        const box = plot.getBoundingClientRect();
        return { x: event.clientX - box.left, y: event.clientY - box.top };
    };
    const timeAt = (/** @type {number} */ x) => {
        const gutter = hands.gutter();
        return hands.view.from + ((x - gutter) / (pane.size.width - gutter)) * hands.view.span;
    };
    const scaleAt = (/** @type {number} */ x) => {
        const place = Math.floor((hands.gutter() - x) / SCALE_WIDTH);
        return x < hands.gutter() ? pane.scales[place] ?? null : null;
    };

    plot.addEventListener("wheel", (event) => {
        event.preventDefault();
        const { x, y } = placeOf(event);
        const factor = WHEEL ** Math.sign(event.deltaY);
        const scale = scaleAt(x);
        if (scale) zoomScale(pane, scale, factor, y);
        else if (event.shiftKey || Math.abs(event.deltaX) > Math.abs(event.deltaY)) hands.view.pan((Math.sign(event.deltaX || event.deltaY) * hands.view.span) / 10);
        else hands.view.zoom(factor, timeAt(x));
        hands.changed();
    }, { passive: false });

    plot.addEventListener("pointerdown", (event) => {
        if (event.button !== 0) return;
        pointers.set(event.pointerId, event);
        plot.setPointerCapture(event.pointerId);
        drag = { ...placeOf(event), moved: false, shift: event.shiftKey, scale: scaleAt(placeOf(event).x) };
    });
    plot.addEventListener("pointermove", (event) => {
        const { x, y } = placeOf(event);
        const before = pointers.get(event.pointerId);
        if (!before || !drag) {
            if (event.pointerType === "mouse") hands.setHover(x > hands.gutter() ? timeAt(x) : null);
            return;
        }
        if (pointers.size === 2) return pinch(before, event);
        if (!drag.moved && Math.hypot(x - drag.x, y - drag.y) < CLICK_PIXELS) return;
        drag.moved = true;
        const box = plot.getBoundingClientRect();
        pointers.set(event.pointerId, event);
        if (drag.scale) panScale(pane, drag.scale, event.clientY - before.clientY);
        else if (drag.shift) hands.setBand({ from: timeAt(drag.x), to: timeAt(x) });
        else hands.view.pan(((before.clientX - event.clientX) / (box.width - hands.gutter())) * hands.view.span);
        hands.changed();
    });
    /** @param {PointerEvent} before @param {PointerEvent} event */
    const pinch = (before, event) => {
        const other = [...pointers.values()].find((one) => one.pointerId !== event.pointerId);
        pointers.set(event.pointerId, event);
        if (!other || !drag) return;
        drag.moved = true;
        const was = Math.abs(before.clientX - other.clientX);
        const is = Math.abs(event.clientX - other.clientX);
        if (was > 10 && is > 10) hands.view.zoom(was / is, timeAt(placeOf(other).x));
        hands.changed();
    };
    const release = (/** @type {PointerEvent} */ event) => {
        if (!pointers.delete(event.pointerId) || !drag) return;
        const { x } = placeOf(event);
        if (drag.shift && drag.moved) {
            const [from, to] = [timeAt(drag.x), timeAt(x)].sort((a, b) => a - b);
            hands.setBand(null);
            hands.view.show(from, to);
        } else if (!drag.moved && !drag.scale && event.type === "pointerup") {
            hands.setCursor(event.shiftKey ? "b" : "a", timeAt(x));
        }
        drag = null;
        hands.changed();
    };
    plot.addEventListener("pointerup", release);
    plot.addEventListener("pointercancel", release);
    plot.addEventListener("pointerleave", () => hands.setHover(null));
    plot.addEventListener("dblclick", (event) => {
        const scale = scaleAt(placeOf(event).x);
        if (scale) pane.fixed.delete(scale.key);
        else hands.fit();
        hands.changed();
    });
    plot.addEventListener("keydown", (event) => {
        if (event.target === plot && keyDown(event, pane, hands)) event.preventDefault();
    });
}

/** @param {Pane} pane @param {import("./plot.js").Scale} scale @param {number} factor @param {number} y */
function zoomScale(pane, scale, factor, y) {
    const { low, high } = scale.range;
    const atY = low + (high - low) * (1 - y / pane.size.height);
    pane.ranges.set(scale.key, zoomed(scale.range, atY, factor));
    pane.fixed.add(scale.key);
}

/** @param {Pane} pane @param {import("./plot.js").Scale} scale @param {number} pixels */
function panScale(pane, scale, pixels) {
    const toY = yOf(scale, pane.size.height);
    const { low, high } = scale.range;
    const each = (high - low) / (toY(low) - toY(high));
    const now = pane.ranges.get(scale.key) ?? scale.range;
    pane.ranges.set(scale.key, { low: now.low + pixels * each, high: now.high + pixels * each });
    pane.fixed.add(scale.key);
}

/**
 * @param {KeyboardEvent} event
 * @param {Pane} pane
 * @param {Hands} hands
 * @returns {boolean} it was one of ours
 */
function keyDown(event, pane, hands) {
    if (event.ctrlKey || event.metaKey || event.altKey) return false;
    const { view } = hands;
    const pixel = view.span / Math.max(1, pane.size.width - hands.gutter());
    const scales = (/** @type {(scale: import("./plot.js").Scale) => void} */ change) => pane.scales.forEach(change);
    const cursor = (/** @type {number} */ pixels) => {
        const name = hands.activeCursor();
        const at = view.cursors[name] ?? (view.from + view.to) / 2;
        hands.setCursor(name, at + pixels * pixel);
    };
    const far = event.shiftKey ? 10 : 1;
    /** @type {Record<string, () => void>} */
    const keys = {
        ArrowLeft: () => view.pan(-view.span / 10), ArrowRight: () => view.pan(view.span / 10),
        ArrowUp: () => scales((scale) => panScale(pane, scale, pane.size.height / 10)),
        ArrowDown: () => scales((scale) => panScale(pane, scale, -pane.size.height / 10)),
        "+": () => view.zoom(1 / WHEEL, view.cursors[hands.activeCursor()] ?? undefined), "-": () => view.zoom(WHEEL, view.cursors[hands.activeCursor()] ?? undefined),
        i: () => scales((scale) => zoomScale(pane, scale, 1 / WHEEL, pane.size.height / 2)),
        o: () => scales((scale) => zoomScale(pane, scale, WHEEL, pane.size.height / 2)),
        y: () => pane.fixed.clear(), h: () => hands.fit(), Home: () => hands.fit(),
        f: () => hands.follow(!view.follows), End: () => hands.follow(true),
        a: () => hands.setCursor("a", view.cursors.a ?? (view.from + view.to) / 2),
        b: () => hands.setCursor("b", view.cursors.b ?? (view.from + view.to) / 2),
        ",": () => cursor(-far), ".": () => cursor(far), "<": () => cursor(-10), ">": () => cursor(10), ";": () => cursor(-10), ":": () => cursor(10),
        Escape: () => { hands.setCursor("a", null); hands.setCursor("b", null); },
    };
    keys["="] = keys["+"];
    const deed = keys[event.key.length === 1 ? event.key.toLowerCase() : event.key];
    if (!deed) return false;
    deed();
    hands.changed();
    return true;
}
