// @ts-check
// What a trace is drawn from. A strip is a row of stretches of time, each with the least, the greatest and the
// last value in it; a single sample is a stretch of no length. `columnsOf` makes of it one column for each
// pixel, in which no peak is lost. No DOM.

/**
 * `broken[i]`: nothing is known between the stretch before and this one: they are not joined.
 * `begin`: where each stretch begins, when that is not where the one before ends or `time` itself.
 * @typedef {{count: number, time: Float64Array, begin?: Float64Array, least: ArrayLike<number>, greatest: ArrayLike<number>,
 *            last: ArrayLike<number>, broken: Uint8Array, exact?: boolean}} Strip
 */

/** Columns of one trace, used again for each picture. */
export class Columns {
    constructor() {
        this.count = 0;
        const size = 1024;
        this.from = new Float64Array(size);
        this.x = new Float64Array(size);
        this.least = new Float64Array(size);
        this.greatest = new Float64Array(size);
        this.last = new Float64Array(size);
        this.broken = new Uint8Array(size);
        this.low = NaN;
        this.high = NaN;
    }

    /** @param {number} size */
    reserve(size) {
        this.x = new Float64Array(size);
        this.from = new Float64Array(size);
        this.least = new Float64Array(size);
        this.greatest = new Float64Array(size);
        this.last = new Float64Array(size);
        this.broken = new Uint8Array(size);
    }

    /**
     * @param {number} from
     * @param {number} x
     * @param {number} least
     * @param {number} greatest
     * @param {number} last
     * @param {number} broken
     */
    add(from, x, least, greatest, last, broken) {
        const i = this.count++;
        this.from[i] = from;
        this.x[i] = x;
        this.least[i] = least;
        this.greatest[i] = greatest;
        this.last[i] = last;
        this.broken[i] = broken;
    }
}

/**
 * Joins the stretches of each pixel. `low` and `high` of the result are those of what lies in the picture.
 * @param {Strip} strip
 * @param {number} from the time at x = 0
 * @param {number} to the time at x = width
 * @param {number} width
 * @param {Columns} columns is filled
 */
export function columnsOf(strip, from, to, width, columns) {
    const scale = width / (to - from);
    if (columns.x.length < strip.count && columns.x.length < 4 * width + 8) {
        columns.reserve(Math.min(strip.count, 4 * width) + 8);
    }
    columns.count = 0;
    let low = Infinity;
    let high = -Infinity;
    let pixel = NaN;
    let place = -1;
    for (let i = 0; i < strip.count; ++i) {
        const last = strip.last[i];
        if (last !== last) continue;
        const x = (strip.time[i] - from) * scale;
        if (x < -width || x > 2 * width) {
            // What joins the picture from outside is kept, the rest costs nothing.
            const next = i + 1 < strip.count ? (strip.time[i + 1] - from) * scale : x;
            const before = i > 0 ? (strip.time[i - 1] - from) * scale : x;
            if ((x < 0 && next < 0) || (x > width && before > width)) continue;
        }
        const least = strip.least[i];
        const greatest = strip.greatest[i];
        if (x >= 0 && x <= width) {
            if (least < low) low = least;
            if (greatest > high) high = greatest;
        }
        const column = Math.floor(x);
        if (column === pixel && !strip.broken[i]) {
            if (least < columns.least[place]) columns.least[place] = least;
            if (greatest > columns.greatest[place]) columns.greatest[place] = greatest;
            columns.last[place] = last;
            continue;
        }
        if (columns.count === columns.x.length) break;
        pixel = column;
        place = columns.count;
        columns.add(strip.begin ? (strip.begin[i] - from) * scale : x, x, least, greatest, last, strip.broken[i]);
    }
    columns.low = low;
    columns.high = high;
}

/**
 * The value that held at a time: of the last stretch that ended there or before; what lay in the stretch there.
 * @param {Strip} strip
 * @param {number} time
 * @returns {{least: number, greatest: number, last: number} | null} null: nothing is known there
 */
export function valueAt(strip, time) {
    let low = 0;
    let high = strip.count;
    while (low < high) {
        const middle = (low + high) >> 1;
        if (strip.time[middle] <= time) low = middle + 1;
        else high = middle;
    }
    let place = low - 1;
    while (place >= 0 && Number.isNaN(strip.last[place])) --place;
    if (place < 0) return null;
    let next = low;
    while (next < strip.count && Number.isNaN(strip.last[next])) ++next;
    // Behind the last sample before an outage nothing is known.
    if (strip.time[place] < time && next < strip.count && strip.broken[next]) return null;
    if (next >= strip.count && strip.time[place] < time && strip.count > 1) return null;
    return { least: strip.least[place], greatest: strip.greatest[place], last: strip.last[place] };
}
