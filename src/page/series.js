// @ts-check
// The binary answer of a recording's series: columns or single samples of some signals. No DOM.

/** @typedef {import("./strips.js").Strip} Strip */

const EXACT = 1;

/**
 * @param {ArrayBuffer} buffer
 * @returns {{from: number, to: number, columns: number, strips: Map<number, Strip>}} times in seconds, strips by place
 */
export function parseSeries(buffer) {
    const view = new DataView(buffer);
    if (view.getUint32(0, true) !== 1) throw new Error("a series of another version than this page knows");
    const signals = view.getUint32(4, true);
    const columns = view.getUint32(8, true);
    const from = view.getFloat64(16, true) / 1e9;
    const to = view.getFloat64(24, true) / 1e9;
    /** @type {Map<number, Strip>} */
    const strips = new Map();
    let at = 32;
    for (let i = 0; i < signals; ++i) {
        const place = view.getUint32(at, true);
        const flags = view.getUint32(at + 4, true);
        const count = view.getUint32(at + 8, true);
        at += 16;
        const size = flags & EXACT ? count * 17 : count * 13;
        if (at + size > buffer.byteLength) throw new Error("a series is cut off");
        strips.set(place, flags & EXACT ? samplesOf(buffer, at, count) : columnsIn(buffer, at, count, from, to));
        at += Math.ceil(size / 8) * 8;
    }
    return { from, to, columns, strips };
}

/**
 * @param {ArrayBuffer} buffer
 * @param {number} at
 * @param {number} count
 * @returns {Strip}
 */
function samplesOf(buffer, at, count) {
    const time = new Float64Array(buffer.slice(at, at + 8 * count));
    for (let i = 0; i < count; ++i) time[i] /= 1e9;
    const value = new Float64Array(buffer.slice(at + 8 * count, at + 16 * count));
    const broken = new Uint8Array(buffer, at + 16 * count, count);
    return { count, time, least: value, greatest: value, last: value, broken, exact: true };
}

/**
 * @param {ArrayBuffer} buffer
 * @param {number} at
 * @param {number} count
 * @param {number} from
 * @param {number} to
 * @returns {Strip}
 */
function columnsIn(buffer, at, count, from, to) {
    const least = new Float32Array(buffer.slice(at, at + 4 * count));
    const greatest = new Float32Array(buffer.slice(at + 4 * count, at + 8 * count));
    const last = new Float32Array(buffer.slice(at + 8 * count, at + 12 * count));
    const filled = new Uint8Array(buffer, at + 12 * count, count);
    const time = new Float64Array(count);
    const broken = new Uint8Array(count);
    for (let i = 0; i < count; ++i) {
        time[i] = from + ((i + 0.5) * (to - from)) / count;
        if (filled[i] === 0) last[i] = NaN;
        // 3: there is a gap before or among its samples.
        broken[i] = filled[i] === 3 || (filled[i] !== 0 && i > 0 && filled[i - 1] === 0) ? 1 : 0;
    }
    return { count, time, least, greatest, last, broken };
}
