// @ts-check
// Starting and stopping measurement and recording, the marker, states and losses.

import { ApiError, encode, reason, sendJson } from "./api.js";
import { button, byId, inTextField, make, say, setText } from "./dom.js";
import { formatBytes, plain } from "./text.js";
import { kept } from "./theme.js";

const PLAN_MS = 250;
const MARK_KEY = "xcplumo.markKey";

/** What is told of a loss: its name, what it means, and how it reads from the state. */
const LOSSES = /** @type {[string, string, (state: any) => number][]} */ ([
    ["lost", "packets of the ECU that were lost on the way", (state) => state.measurement?.lostOdts ?? 0],
    ["missed", "samples that the ECU's timestamps show as missing", (state) => state.measurement?.missedCycles ?? 0],
    ["overload", "times that the ECU said it could not keep up", (state) => state.measurement?.overloads ?? 0],
    ["incomplete", "records that came in part only", (state) => state.measurement?.incompleteRecords ?? 0],
    ["outages", "times that the ECU was gone and came back", (state) => state.measurement?.reconnects ?? 0],
    ["medium", "what the interface counts as lost", (state) => Object.values(state.measurement?.medium ?? {}).reduce((/** @type {number} */ sum, one) => sum + Number(one), 0)],
    ["dropped", "records that could not be written to the recording", (state) => state.recording?.dropped ?? 0],
    ["not shown", "records that this page did not get in time; the recording has them", (state) => state.notShown ?? 0],
]);

export class Control {
    /** @param {{ecu(): string, wanted(): string[], onStarted(): void}} page */
    constructor(page) {
        this.page = page;
        /** @type {any} */
        this.state = {};
        this.notShown = 0;
        this.canWrite = true;
        this.planned = "";
        this.markKey = kept(MARK_KEY) ?? "m";
        this.start = button("▶ Measure", () => this.toggleMeasurement(), { title: "Ctrl+Enter", class: "primary" });
        this.plan = make("span", { class: "plan", "aria-label": "plan" });
        this.name = make("input", { type: "text", "aria-label": "name of the recording", placeholder: "recording's name", size: "12", maxlength: "100", pattern: "[A-Za-z0-9_\\-][A-Za-z0-9_.\\-]*", spellcheck: "false",
            onkeydown: (/** @type {KeyboardEvent} */ event) => { if (event.key === "Enter" && !this.state.recording) this.toggleRecording(); } });
        this.record = button("● Record", () => this.toggleRecording(), { title: "Ctrl+Shift+R" });
        this.markText = make("input", { type: "text", "aria-label": "text of the mark", placeholder: "text of mark", size: "9", maxlength: "200",
            onkeydown: (/** @type {KeyboardEvent} */ event) => { if (event.key === "Enter") this.mark(); } });
        this.markButton = button("▼ Mark", () => this.mark());
        byId("controls").append(this.start, this.plan, this.name, this.record, this.markText, this.markButton);
        this.losses = LOSSES.map(([name, title]) => {
            const place = make("span", { class: "loss", title });
            byId("losses").append(place);
            return { name, place };
        });
        document.addEventListener("keydown", (event) => this.onKey(event));
        this.tellKey();
        this.show();
    }

    /** @param {string} key one letter, or "" for none */
    setMarkKey(key) {
        this.markKey = key.slice(0, 1).toLowerCase();
        kept(MARK_KEY, this.markKey);
        this.tellKey();
    }

    tellKey() {
        this.markButton.title = this.markKey ? `key ${this.markKey}, where no text is typed` : "";
    }

    /** @param {KeyboardEvent} event */
    onKey(event) {
        if (event.ctrlKey && event.key === "Enter" && !event.defaultPrevented) {
            event.preventDefault();
            this.toggleMeasurement();
        } else if (event.ctrlKey && event.shiftKey && event.key.toLowerCase() === "r") {
            event.preventDefault();
            this.toggleRecording();
        } else if (!event.ctrlKey && !event.altKey && !event.metaKey && this.markKey && event.key.toLowerCase() === this.markKey &&
            !inTextField(event) && !event.repeat && !event.defaultPrevented) {
            event.preventDefault();
            this.mark();
        }
    }

    get isMeasuring() {
        return this.state.measurement !== null && this.state.measurement !== undefined;
    }

    /** @param {any} state as the server tells it */
    take(state) {
        const before = this.state;
        this.state = state;
        if ((before.measurement ?? null) !== null && !this.isMeasuring) this.askPlan();
        this.show();
    }

    /** @param {number} count */
    miss(count) {
        this.notShown += count;
        this.show();
    }

    show() {
        const { state } = this;
        const recording = state.recording;
        setText(this.start, this.isMeasuring ? "■ Stop" : "▶ Measure");
        this.start.setAttribute("aria-pressed", String(this.isMeasuring));
        setText(this.record, recording ? "■ Stop recording" : "● Record");
        this.record.classList.toggle("active", Boolean(recording));
        this.record.setAttribute("aria-pressed", String(Boolean(recording)));
        this.record.disabled = !this.isMeasuring && !recording;
        this.name.disabled = Boolean(recording);
        this.markButton.disabled = this.markText.disabled = !recording;
        if (recording) setText(this.plan, `${recording.recorded} records → ${plain(recording.name)}`);
        else if (this.isMeasuring) setText(this.plan, `${state.measurement.records} records of ${state.measurement.signals?.length ?? 0} signals`);
        else setText(this.plan, this.planned);
        for (const [number, { name, place }] of this.losses.entries()) {
            const count = LOSSES[number][2]({ ...state, notShown: this.notShown });
            setText(place, count > 0 ? `⚠ ${name} ${count}` : `${name} 0`);
            place.classList.toggle("bad", count > 0);
            place.hidden = count === 0 && !["lost", "missed", "dropped", "outages"].includes(name);
        }
        const words = /** @type {Record<string, string>} */ ({ connected: "✓ connected", measuring: "● measuring", reconnecting: "⚠ reconnecting", disconnected: "✕ no ECU", failed: "✕ failed" });
        const badge = byId("state");
        setText(badge, words[state.state] ?? plain(state.state ?? "starting"));
        badge.dataset.state = state.state ?? "";
        badge.title = plain(state.address ?? "");
    }

    /** Shows what measuring would mean, a moment after the last change. */
    askPlan() {
        clearTimeout(this.planTimer);
        if (this.isMeasuring) return;
        this.planTimer = setTimeout(async () => {
            const signals = this.page.wanted();
            try {
                const plan = signals.length ? await sendJson("POST", `/v1/ecus/${encode(this.page.ecu())}/measurement/plan`, { signals }) : null;
                const warnings = plan?.warnings?.length ? ` · ⚠ ${plan.warnings.join("; ")}` : "";
                const load = plan?.busLoad > 0.0005 ? ` · bus ${(plan.busLoad * 100).toFixed(1)} %` : "";
                this.planned = plan ? `${plan.signals.length} signals · ${plan.lists.length} lists · ${Math.round(plan.recordsPerSecond)} records/s · ` +
                    `${formatBytes(Math.round(plan.bytesPerSecond))}/s${load}${warnings}` : "no signals";
            } catch (error) {
                this.planned = error instanceof ApiError && error.status === 409 ? "" : `✕ ${reason(error)}`;
            }
            this.show();
        }, PLAN_MS);
    }

    /** The measurement takes what is shown now, when it runs and nothing is recorded. */
    remeasure() {
        clearTimeout(this.measureTimer);
        if (!this.isMeasuring) return this.askPlan();
        if (this.state.recording) return say("A recording runs: it keeps its signals. New ones are measured after it.");
        this.measureTimer = setTimeout(() => this.measure(), PLAN_MS);
    }

    async measure() {
        const signals = this.page.wanted();
        if (signals.length === 0) return say("Nothing to measure yet: put a signal into a pane first.");
        try {
            await sendJson("PUT", `/v1/ecus/${encode(this.page.ecu())}/measurement`, { signals });
            this.page.onStarted();
        } catch (error) {
            say(`Not measuring: ${reason(error)}`, true);
        }
    }

    async toggleMeasurement() {
        if (!this.isMeasuring) return this.measure();
        if (this.state.recording && !window.confirm(`This ends the recording ${plain(this.state.recording.name)}, too.`)) return undefined;
        return this.ask("DELETE", "measurement");
    }

    async toggleRecording() {
        if (this.state.recording) return this.ask("DELETE", "recording");
        const name = this.name.value.trim() || nameOfNow();
        const done = await this.ask("PUT", "recording", { name });
        if (done) say(`Recording to ${name}`);
        if (done) this.name.value = "";
        return done;
    }

    async mark() {
        if (!this.state.recording) return say("A mark needs a running recording.");
        const text = this.markText.value.trim() || "mark";
        if (await this.ask("POST", "recording/marks", { text })) {
            this.onMark?.(text);
            say(`Marked: ${text}`);
        }
        return undefined;
    }

    /** @type {((text: string) => void) | undefined} */
    onMark;

    /** @param {string} method @param {string} what @param {any} [body] @returns {Promise<boolean>} */
    async ask(method, what, body) {
        try {
            await sendJson(method, `/v1/ecus/${encode(this.page.ecu())}/${what}`, body);
            return true;
        } catch (error) {
            say(reason(error), true);
            return false;
        }
    }
}

function nameOfNow() {
    const now = new Date();
    const two = (/** @type {number} */ number) => String(number).padStart(2, "0");
    return `${now.getFullYear()}-${two(now.getMonth() + 1)}-${two(now.getDate())}_${two(now.getHours())}-${two(now.getMinutes())}-${two(now.getSeconds())}`;
}
