// @ts-check
// Axes: round steps, their texts, and the range that fits some values. No DOM.

/**
 * 1, 2 or 5 times a power of ten, so that `count` of them are at most `range`.
 * @param {number} range
 * @param {number} count
 */
export function roundStep(range, count) {
    const rough = range / Math.max(count, 1);
    if (!(rough > 0) || !Number.isFinite(rough)) return 1;
    const power = 10 ** Math.floor(Math.log10(rough));
    for (const factor of [1, 2, 5]) if (factor * power >= rough * (1 - 1e-9)) return factor * power;
    return 10 * power;
}

const TIME_STEPS = [60, 120, 300, 600, 900, 1800, 3600, 7200, 14400, 21600, 43200, 86400];

/**
 * @param {number} range seconds
 * @param {number} count
 */
export function timeStep(range, count) {
    const step = roundStep(range, count);
    if (step <= 30) return step === 20 ? 30 : step;
    return TIME_STEPS.find((one) => one >= range / count) ?? 86400 * Math.ceil(range / count / 86400);
}

/**
 * The multiples of a step in a range.
 * @param {number} low
 * @param {number} high
 * @param {number} step
 */
export function ticks(low, high, step) {
    const list = [];
    const first = Math.ceil(low / step - 1e-6);
    const last = Math.floor(high / step + 1e-6);
    for (let i = first; i <= last && list.length < 1000; ++i) list.push(i * step);
    return list;
}

/** @param {number} step */
export function decimalsOf(step) {
    return Math.min(12, Math.max(0, -Math.floor(Math.log10(step) + 1e-9)));
}

/**
 * The text of a tick, with the decimals that its step needs.
 * @param {number} value
 * @param {number} step
 */
export function tickText(value, step) {
    const size = Math.max(Math.abs(value), step);
    if (size >= 1e7 || (size < 1e-4 && size > 0)) {
        const digits = Math.max(0, Math.min(6, Math.floor(Math.log10(size)) - Math.floor(Math.log10(step))));
        return value === 0 ? "0" : value.toExponential(digits);
    }
    const text = value.toFixed(decimalsOf(step));
    return Number(text) === 0 ? text.replace("-", "") : text.replace("-", "−");
}

/**
 * @param {number} seconds
 * @param {number} step
 * @param {boolean} long hours and minutes
 */
export function timeTickText(seconds, step, long) {
    const decimals = decimalsOf(step);
    const sign = seconds < -step / 2 ? "−" : "";
    const scale = 10 ** decimals;
    const size = Math.round(Math.abs(seconds) * scale) / scale;
    if (!long) return `${sign}${size.toFixed(decimals)}`;
    const hours = Math.floor(size / 3600);
    const minutes = String(Math.floor(size / 60) % 60).padStart(hours ? 2 : 1, "0");
    const rest = (size % 60).toFixed(decimals).padStart(decimals ? decimals + 3 : 2, "0");
    return `${sign}${hours ? `${hours}:` : ""}${minutes}:${rest}`;
}

/** @typedef {{low: number, high: number}} Range */

/**
 * The range that shows these values with some room. One that still fits is kept, so that the picture stands still.
 * @param {number} least
 * @param {number} greatest
 * @param {Range | null} before
 * @returns {Range}
 */
export function fittingRange(least, greatest, before) {
    if (!(least <= greatest)) return before ?? { low: 0, high: 1 };
    const size = greatest - least || Math.max(Math.abs(greatest) * 0.1, 1e-9, Number.isInteger(greatest) ? 1 : 0);
    const step = roundStep(size * 1.1, 16);
    const low = Math.floor((least - size * 0.03) / step) * step;
    const high = Math.ceil((greatest + size * 0.03) / step) * step;
    if (before && before.low <= least && before.high >= greatest && before.high - before.low <= 2 * (high - low)) return before;
    return { low, high };
}

/**
 * @param {Range} range
 * @param {number} place
 * @param {number} factor below 1: nearer
 * @returns {Range}
 */
export function zoomed(range, place, factor) {
    return { low: place - (place - range.low) * factor, high: place + (range.high - place) * factor };
}
