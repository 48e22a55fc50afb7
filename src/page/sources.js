// @ts-check
// Where traces come from: the running measurement, or a recording. Both give strips and facts by the name of a signal.

import { encode, getJson, request } from "./api.js";
import { LiveStore } from "./live_store.js";
import { parseSeries } from "./series.js";

/**
 * @typedef {import("./strips.js").Strip} Strip
 * @typedef {{unit: string, integer: boolean, texts: Map<number, string> | null, description?: string}} Facts
 * @typedef {{from: number, to: number, kind: string, text: string}} Happening
 */

/** @param {any} told a signal as the server tells it @returns {Facts} */
export function factsOf(told) {
    const texts = Array.isArray(told.texts) && told.texts.length ? new Map(told.texts) : null;
    return { unit: told.unit ?? "", integer: Boolean(told.integer || told.isText || texts), texts, description: told.description ?? "" };
}

/** The running measurement. Time 0 is the start of the first one that this page saw. */
export class LiveSource {
    constructor() {
        this.label = "";
        this.store = new LiveStore();
        /** @type {Map<string, Facts>} */
        this.facts = new Map();
        /** @type {Happening[]} */
        this.happenings = [];
        this.baseUtcNs = 0;
        this.offset = 0;
        this.measuring = false;
        this.windows = 0;
        this.records = 0;
    }

    /** @param {any} data of the event `signals` */
    setSignals(data) {
        this.measuring = data.measuring;
        if (!data.measuring) return this.store.interrupt();
        if (!this.baseUtcNs) this.baseUtcNs = data.startUtcNs;
        const offset = (data.startUtcNs - this.baseUtcNs) / 1e9;
        if (offset !== this.offset) this.store.interrupt();
        this.offset = offset;
        for (const signal of data.signals) this.facts.set(signal.name, factsOf(signal));
        this.store.setSignals(data.signals);
    }

    /** @param {import("./frames.js").WindowFrame} window */
    append(window) {
        ++this.windows;
        this.records += window.records;
        this.store.append(this.offset + window.fromNs / 1e9, this.offset + window.toNs / 1e9, window);
    }

    /** @param {string} name @returns {Facts | null} */
    factsOf(name) {
        return this.facts.get(name) ?? null;
    }

    /** @param {string} name @param {number} from @param {number} to @param {number} width @param {Strip | null} before its room is used again @returns {Strip} */
    strip(name, from, to, width, before) {
        return this.store.strip(name, from, to, width, before);
    }

    /** @param {number} utcMs */
    timeOf(utcMs) {
        return this.baseUtcNs ? utcMs / 1e3 - this.baseUtcNs / 1e9 : NaN;
    }

    /** @param {Happening} happening */
    note(happening) {
        this.happenings.push(happening);
        if (this.happenings.length > 2000) this.happenings.shift();
    }

    get range() {
        return { from: this.store.oldest, to: this.store.newest };
    }

    get startUtcNs() {
        return this.baseUtcNs;
    }
}

const MOST_AT_ONCE = 64;

/** A recording. Its strips are those of the stretch that was asked for last; what is on its way is told by `loading`. */
export class RecordedSource {
    /**
     * @param {string} name
     * @param {() => void} onChange more can be drawn
     * @param {(error: unknown) => void} onError
     */
    constructor(name, onChange, onError) {
        this.name = name;
        this.label = "";
        this.onChange = onChange;
        this.onError = onError;
        /** Added to its own times. */
        this.shift = 0;
        this.startUtcNs = 0;
        /** @type {any[]} */
        this.signals = [];
        /** @type {Map<string, number>} */
        this.places = new Map();
        /** @type {Happening[]} */
        this.own = [];
        /** @type {Map<number, Strip>} */
        this.strips = new Map();
        this.asked = "";
        this.loading = false;
        /** Milliseconds of the last answer, from the request to the strips. */
        this.tookMs = 0;
        this.begin = 0;
        this.end = 0;
    }

    async open() {
        const told = await getJson(`/v1/recordings/${encode(this.name)}/signals`);
        this.signals = told.signals;
        this.startUtcNs = Number(told.startUtcNs);
        this.begin = Number(told.fromNs) / 1e9;
        this.end = Number(told.toNs) / 1e9;
        told.signals.forEach((/** @type {any} */ signal, /** @type {number} */ place) => {
            if (!this.places.has(signal.name)) this.places.set(signal.name, place);
        });
        this.facts = told.signals.map(factsOf);
        this.own = (told.events ?? []).map((/** @type {any} */ one) => ({
            from: one.tNs / 1e9, to: (one.untilNs ?? one.tNs) / 1e9, kind: one.kind, text: one.text ?? "" }));
        if (told.eventsLeftOut > 0)
            this.own.push({ from: this.begin, to: this.begin, kind: "gap", text: `${told.eventsLeftOut} more events or gaps are not marked` });
    }

    get range() {
        return { from: this.begin + this.shift, to: this.end + this.shift };
    }

    get happenings() {
        return this.own.map((one) => ({ ...one, from: one.from + this.shift, to: one.to + this.shift }));
    }

    /** @param {string} name @returns {Facts | null} */
    factsOf(name) {
        const place = this.places.get(name);
        return place === undefined ? null : /** @type {Facts[]} */ (this.facts)[place];
    }

    /** @param {string} name @returns {Strip} */
    strip(name) {
        const strip = this.strips.get(this.places.get(name) ?? -1);
        if (!strip) return { count: 0, time: new Float64Array(0), least: [], greatest: [], last: [], broken: new Uint8Array(0) };
        if (!this.shift) return strip;
        return { ...strip, time: strip.time.map((time) => time + this.shift) };
    }

    /**
     * Asks for what is shown. While an answer is awaited only the newest wish waits.
     * @param {string[]} names
     * @param {number} from
     * @param {number} to
     * @param {number} columns
     */
    want(names, from, to, columns) {
        const places = names.map((name) => this.places.get(name)).filter((place) => place !== undefined);
        // Bounds on whole columns, so that a peak does not jump from one to the next while the picture moves.
        const size = (to - from) / columns;
        const first = Math.floor((from - this.shift) / size) * size;
        const wish = { places: /** @type {number[]} */ (places), from: Math.round(first * 1e9),
            to: Math.round((first + (columns + 1) * size) * 1e9), columns: columns + 1 };
        const key = JSON.stringify(wish);
        if (key === this.asked || wish.places.length === 0 || wish.to <= wish.from) return;
        this.asked = key;
        this.next = wish;
        if (!this.loading) this.load();
    }

    async load() {
        this.loading = true;
        while (this.next) {
            const { places, from, to, columns } = this.next;
            this.next = undefined;
            const begin = performance.now();
            try {
                /** @type {Map<number, Strip>} */
                const strips = new Map();
                for (let i = 0; i < places.length; i += MOST_AT_ONCE) {
                    const some = places.slice(i, i + MOST_AT_ONCE).join(",");
                    const answer = await request("GET",
                        `/v1/recordings/${encode(this.name)}/series?signals=${some}&from=${from}&to=${to}&columns=${columns}`);
                    for (const [place, strip] of parseSeries(await answer.arrayBuffer()).strips) strips.set(place, strip);
                }
                this.strips = strips;
                this.tookMs = performance.now() - begin;
            } catch (error) {
                this.onError(error);
            }
            this.onChange();
        }
        this.loading = false;
        this.onChange();
    }
}
