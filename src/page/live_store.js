// @ts-check
// What came of a running measurement, for as long as there is room: windows of some milliseconds, and coarser
// ones of eight, 64 and 512 of them, so that its size is fixed and hours are still there. No DOM.

/**
 * @typedef {import("./strips.js").Strip} Strip
 * @typedef {{count: number, time: Float64Array, begin: Float64Array, least: Float32Array, greatest: Float32Array, last: Float64Array, broken: Uint8Array}} OwnStrip
 */

const ROWS = 4096;
const FACTOR = 8;
const LEVELS = 4;
/** Windows without a record of a signal are no gap before so many of its cycles have passed. */
const CYCLES = 3.5;

class Level {
    constructor() {
        this.begin = new Float64Array(ROWS);
        this.end = new Float64Array(ROWS);
        this.broken = new Uint8Array(ROWS);
        /** @type {Map<string, Track>} */
        this.tracks = new Map();
        this.rows = 0;
    }
    get first() {
        return Math.max(0, this.rows - ROWS);
    }
}

class Track {
    constructor() {
        this.least = new Float32Array(ROWS).fill(NaN);
        this.greatest = new Float32Array(ROWS).fill(NaN);
        this.last = new Float64Array(ROWS).fill(NaN);
    }
}

/** @param {number} size @returns {OwnStrip} */
function roomFor(size) {
    return { count: 0, time: new Float64Array(size), begin: new Float64Array(size), least: new Float32Array(size), greatest: new Float32Array(size),
        last: new Float64Array(size), broken: new Uint8Array(size) };
}

export class LiveStore {
    constructor() {
        this.levels = Array.from({ length: LEVELS }, () => new Level());
        /** @type {string[]} */
        this.names = [];
        /** @type {Map<string, {cycle: number}>} */
        this.facts = new Map();
        this.gap = 0.3;
        this.breakNext = false;
        /** Newest time in seconds; NaN: nothing came yet. */
        this.newest = NaN;
    }

    /**
     * The signals of the windows that follow, in their order.
     * @param {{name: string, cycleNs?: number}[]} signals
     */
    setSignals(signals) {
        this.names = signals.map((signal) => signal.name);
        for (const signal of signals) this.facts.set(signal.name, { cycle: (signal.cycleNs ?? 0) / 1e9 });
        for (const level of this.levels) {
            for (const name of this.names) if (!level.tracks.has(name)) level.tracks.set(name, new Track());
        }
    }

    /**
     * Forgets what is not among these names.
     * @param {Set<string>} names
     */
    keep(names) {
        for (const level of this.levels) {
            for (const name of level.tracks.keys()) if (!names.has(name) && !this.names.includes(name)) level.tracks.delete(name);
        }
    }

    /** What comes next is not joined with what was. */
    interrupt() {
        this.breakNext = true;
    }

    /**
     * @param {number} begin seconds
     * @param {number} end
     * @param {import("./frames.js").WindowFrame} window
     */
    append(begin, end, window) {
        const broken = this.breakNext || (this.newest === this.newest && begin - this.newest > this.gap) ? 1 : 0;
        this.breakNext = false;
        this.newest = end;
        const number = this.levels[0].rows;
        let each = 1;
        for (const level of this.levels) {
            const fresh = number % each === 0;
            if (fresh) ++level.rows;
            this.put(level, fresh, begin, end, broken, window);
            each *= FACTOR;
        }
    }

    /**
     * @param {Level} level
     * @param {boolean} fresh
     * @param {number} begin
     * @param {number} end
     * @param {number} broken
     * @param {import("./frames.js").WindowFrame} window
     */
    put(level, fresh, begin, end, broken, window) {
        const row = (level.rows - 1) % ROWS;
        level.end[row] = end;
        if (fresh) {
            level.begin[row] = begin;
            level.broken[row] = broken;
            for (const track of level.tracks.values()) track.last[row] = NaN;
        } else {
            level.broken[row] |= broken;
        }
        for (let i = 0; i < this.names.length; ++i) {
            const last = window.last[i];
            if (last !== last) continue;
            const track = /** @type {Track} */ (level.tracks.get(this.names[i]));
            const none = track.last[row] !== track.last[row];
            track.last[row] = last;
            if (none || window.least[i] < track.least[row]) track.least[row] = window.least[i];
            if (none || window.greatest[i] > track.greatest[row]) track.greatest[row] = window.greatest[i];
        }
    }

    /** The oldest time that is there at all, in seconds. */
    get oldest() {
        const level = this.levels[LEVELS - 1];
        return level.rows ? level.begin[level.first % ROWS] : NaN;
    }

    /**
     * The stretch from..to of a signal, from the finest level that reaches back so far and is no finer than needed.
     * @param {string} name
     * @param {number} from
     * @param {number} to
     * @param {number} width
     * @param {Strip | null} [before] of an earlier picture, whose room is used again
     * @returns {Strip}
     */
    strip(name, from, to, width, before = null) {
        let level = this.levels[0];
        for (const one of this.levels) {
            level = one;
            const reaches = one.first === 0 || one.begin[one.first % ROWS] <= from;
            if (reaches && this.rowsIn(one, from, to) <= 2 * width + 16) break;
        }
        return this.stripOf(level, name, from, to, /** @type {OwnStrip | null} */ (before));
    }

    /**
     * @param {Level} level
     * @param {number} from
     * @param {number} to
     */
    rowsIn(level, from, to) {
        return this.rowAt(level, to) - this.rowAt(level, from);
    }

    /**
     * The first row that ends at this time or later.
     * @param {Level} level
     * @param {number} time
     */
    rowAt(level, time) {
        let low = level.first;
        let high = level.rows;
        while (low < high) {
            const middle = (low + high) >> 1;
            if (level.end[middle % ROWS] < time) low = middle + 1;
            else high = middle;
        }
        return low;
    }

    /**
     * @param {Level} level
     * @param {string} name
     * @param {number} from
     * @param {number} to
     * @param {OwnStrip | null} before
     * @returns {Strip}
     */
    stripOf(level, name, from, to, before) {
        const track = level.tracks.get(name);
        const cycle = this.facts.get(name)?.cycle ?? 0;
        // One more on either side: lines go on to the edges. Slow signals have rows without a value there.
        const margin = 2 + Math.ceil((cycle * 2) / Math.max(this.rowLength(level), 1e-3));
        const first = Math.max(level.first, this.rowAt(level, from) - margin);
        const end = Math.min(level.rows, this.rowAt(level, to) + margin);
        const size = Math.max(0, end - first);
        const strip = before && before.time.length >= size ? before : roomFor(size + 64);
        strip.count = 0;
        if (!track) return strip;
        let broken = 0;
        let heard = NaN;
        for (let number = first; number < end; ++number) {
            const row = number % ROWS;
            broken |= level.broken[row];
            const last = track.last[row];
            if (last !== last) continue;
            const i = strip.count++;
            strip.time[i] = level.end[row];
            strip.begin[i] = level.begin[row];
            strip.least[i] = track.least[row];
            strip.greatest[i] = track.greatest[row];
            strip.last[i] = last;
            const late = cycle > 0 && level.begin[row] - heard > CYCLES * cycle + this.gap;
            strip.broken[i] = broken || late ? 1 : 0;
            heard = level.end[row];
            broken = 0;
        }
        return strip;
    }

    /** @param {Level} level */
    rowLength(level) {
        if (level.rows === 0) return 1;
        const row = (level.rows - 1) % ROWS;
        return level.end[row] - level.begin[row];
    }

    /**
     * The newest value of a signal, NaN for none.
     * @param {string} name
     */
    lastOf(name) {
        const track = this.levels[0].tracks.get(name);
        if (!track) return NaN;
        const level = this.levels[0];
        for (let number = level.rows - 1; number >= Math.max(level.first, level.rows - 400); --number) {
            const value = track.last[number % ROWS];
            if (value === value) return value;
        }
        return NaN;
    }
}
