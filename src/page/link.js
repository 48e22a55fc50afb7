// @ts-check
// The one stream of this page: opened again when it broke off, watched when it falls silent.

import { encode, reason, request } from "./api.js";
import { FrameParser } from "./frames.js";

const SILENCE_MS = 5000;
const WAITS_MS = [300, 700, 1500, 3000];
const WINDOW_MS = 25;
const MOST_ADDRESS = 6000;

export class Link {
    /**
     * @param {string} ecu
     * @param {(frame: import("./frames.js").Frame) => void} onFrame
     * @param {(open: boolean, why: string) => void} onChange
     */
    constructor(ecu, onFrame, onChange) {
        this.ecu = ecu;
        this.onFrame = onFrame;
        this.onChange = onChange;
        /** @type {string[]} */
        this.names = [];
        /** @type {AbortController | null} */
        this.abort = null;
        this.round = 0;
        this.failures = 0;
        this.isOpen = false;
    }

    /** @param {string[]} names of the signals that are shown */
    want(names) {
        const sorted = [...new Set(names)].sort();
        if (this.round && sorted.join("\n") === this.names.join("\n")) return;
        this.names = sorted;
        this.restart();
    }

    restart() {
        this.abort?.abort();
        this.run(++this.round);
    }

    get address() {
        const list = this.names.map(encode).join(",") || "-";
        const signals = list.length > MOST_ADDRESS ? "" : `&signals=${list}`;
        return `/v1/ecus/${encode(this.ecu)}/stream?form=binary&windowMs=${WINDOW_MS}${signals}`;
    }

    /** @param {number} round */
    async run(round) {
        while (round === this.round) {
            let why = "the server ended the stream";
            try {
                await this.readAll(round);
            } catch (error) {
                why = reason(error);
            }
            if (round !== this.round) return;
            this.tell(false, why);
            await new Promise((done) => setTimeout(done, WAITS_MS[Math.min(this.failures++, WAITS_MS.length - 1)]));
        }
    }

    /** @param {number} round */
    async readAll(round) {
        const abort = new AbortController();
        this.abort = abort;
        const parser = new FrameParser();
        const response = await request("GET", this.address, undefined, { signal: abort.signal });
        const reader = /** @type {ReadableStream<Uint8Array>} */ (response.body).getReader();
        let heard = performance.now();
        const watch = setInterval(() => {
            // A page that slept has not read either: only what is silent while it looks counts.
            if (performance.now() - heard > SILENCE_MS) abort.abort();
        }, 1000);
        try {
            for (;;) {
                const { done, value } = await reader.read();
                if (done || round !== this.round) return;
                heard = performance.now();
                this.failures = 0;
                this.tell(true, "");
                for (const frame of parser.push(value)) this.onFrame(frame);
            }
        } catch (error) {
            if (/** @type {Error} */ (error).name !== "AbortError") throw error;
            throw new Error(`nothing came from the server for ${SILENCE_MS / 1000} s`);
        } finally {
            clearInterval(watch);
            abort.abort();
        }
    }

    /**
     * @param {boolean} open
     * @param {string} why
     */
    tell(open, why) {
        if (open === this.isOpen && open) return;
        this.isOpen = open;
        this.onChange(open, why);
    }
}
