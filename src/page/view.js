// @ts-check
// The stretch of time that all panes show, and the two cursors in it. No DOM. Times in seconds.

import { zoomed } from "./scales.js";

const SHORTEST = 1e-6;
const LONGEST = 40 * 86400;

export class TimeView {
    constructor() {
        this.from = 0;
        this.to = 10;
        /** The right edge goes with the newest data. */
        this.follows = true;
        /** @type {{a: number | null, b: number | null}} */
        this.cursors = { a: null, b: null };
    }

    get span() {
        return this.to - this.from;
    }

    /** @param {number} newest */
    follow(newest) {
        if (!this.follows || newest !== newest) return;
        const span = this.span;
        this.to = Math.max(newest, this.from === 0 && newest < span ? span : newest);
        this.from = this.to - span;
    }

    /**
     * @param {number} from
     * @param {number} to
     */
    show(from, to) {
        const span = Math.min(Math.max(to - from, SHORTEST), LONGEST);
        const middle = (from + to) / 2;
        this.from = middle - span / 2;
        this.to = middle + span / 2;
        this.follows = false;
    }

    /** @param {number} seconds */
    pan(seconds) {
        this.show(this.from + seconds, this.to + seconds);
    }

    /**
     * While it follows, the newest edge stays where it is.
     * @param {number} factor below 1: nearer
     * @param {number} [at]
     */
    zoom(factor, at) {
        const follows = this.follows;
        const place = follows ? this.to : at ?? (this.from + this.to) / 2;
        const range = zoomed({ low: this.from, high: this.to }, place, factor);
        this.show(range.low, range.high);
        this.follows = follows;
    }

    /** Length in seconds of what is shown, without moving its newer edge. @param {number} seconds */
    setSpan(seconds) {
        const follows = this.follows;
        this.show(this.to - seconds, this.to);
        this.follows = follows;
    }

    /**
     * From one cursor to the other, and how often that fits into a second.
     * @returns {{seconds: number, hertz: number} | null}
     */
    get difference() {
        const { a, b } = this.cursors;
        if (a === null || b === null) return null;
        return { seconds: b - a, hertz: b === a ? Infinity : 1 / Math.abs(b - a) };
    }
}
