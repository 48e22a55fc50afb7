// @ts-check
// One pane: a canvas and the legend beside it. What it shows is handed in for each picture.

import { make, setText } from "./dom.js";
import { drawPane } from "./plot.js";
import { fittingRange } from "./scales.js";
import { Columns, columnsOf, valueAt } from "./strips.js";
import { formatNumber, plain } from "./text.js";

/**
 * @typedef {import("./plot.js").Scale} Scale
 * @typedef {import("./strips.js").Strip} Strip
 * @typedef {import("./sources.js").Facts} Facts
 * @typedef {{label: string, factsOf(name: string): Facts | null,
 *            strip(name: string, from: number, to: number, width: number, before: Strip | null): Strip}} Source
 * @typedef {{key: string, name: string, source: Source, facts: Facts | null, tag: string, color: string, known: Map<number, ReturnType<typeof valueAt>>, strip: Strip | null,
 *            columns: Columns, row: Row}} Shown
 * @typedef {{element: HTMLTableRowElement, name: HTMLElement, swatch: HTMLElement, value: HTMLElement, unit: HTMLElement,
 *            a: HTMLElement, b: HTMLElement, difference: HTMLElement, own: HTMLElement}} Row
 */

/** @param {Facts | null} facts @param {number} value */
export function valueText(facts, value) {
    if (value !== value) return "–";
    const text = facts?.texts?.get(value);
    return text === undefined ? formatNumber(value, 7) : plain(text);
}

export class Pane {
    /**
     * @param {{onRemoveSignal(pane: Pane, name: string): void, onOwnScale(pane: Pane, name: string): void,
     *          onRemove(pane: Pane): void, onChoose(pane: Pane): void}} actions
     */
    constructor(actions) {
        this.actions = actions;
        /** @type {string[]} */
        this.signals = [];
        /** @type {Set<string>} */
        this.own = new Set();
        this.height = 1;
        /** @type {Map<string, import("./scales.js").Range>} */
        this.ranges = new Map();
        /** Scales that the user moved: these do not fit themselves. @type {Set<string>} */
        this.fixed = new Set();
        /** @type {Map<string, Shown>} */
        this.shown = new Map();
        /** @type {string | null} */
        this.highlighted = null;
        /** @type {Scale[]} */
        this.scales = [];
        this.canvas = make("canvas", { role: "img" });
        this.context = /** @type {CanvasRenderingContext2D} */ (this.canvas.getContext("2d", { alpha: false }));
        this.plot = make("div", { class: "plot", tabindex: "0", role: "group" }, this.canvas);
        this.body = make("tbody");
        this.heads = ["now", "A", "B", "B − A"].map((text) => make("th", { text, scope: "col" }));
        this.table = make("table", { class: "legend" },
            make("thead", {}, make("tr", {}, make("th", { scope: "col", text: "signal" }), ...this.heads, make("th", { text: "unit", scope: "col" }), make("th", {}))), this.body);
        const remove = make("button", { type: "button", class: "small", text: "✕ pane", "aria-label": "remove this pane", onclick: () => actions.onRemove(this) });
        this.element = make("div", { class: "pane" }, this.plot, make("div", { class: "side" }, this.table, remove));
        this.element.addEventListener("focusin", () => actions.onChoose(this));
        this.element.addEventListener("pointerdown", () => actions.onChoose(this));
        this.size = { width: 0, height: 0, ratio: 1 };
        this.sized = false;
        new ResizeObserver(() => { this.sized = false; }).observe(this.plot);
    }

    measureSize() {
        const ratio = window.devicePixelRatio || 1;
        // Asking for it makes the browser lay out the page: not for each picture.
        if (this.sized && ratio === this.size.ratio) return;
        this.sized = true;
        const { clientWidth: width, clientHeight: height } = this.plot;
        if (width === this.size.width && height === this.size.height && ratio === this.size.ratio) return;
        this.size = { width, height, ratio };
        this.canvas.width = Math.max(1, Math.round(width * ratio));
        this.canvas.height = Math.max(1, Math.round(height * ratio));
    }

    /**
     * The rows of the legend for these sources: each signal of each source that has it, or of the first one.
     * @param {Source[]} sources
     */
    arrange(sources) {
        /** @type {Map<string, Shown>} */
        const shown = new Map();
        this.signals.forEach((name, number) => {
            const having = sources.filter((source) => source.factsOf(name));
            (having.length ? having : sources.slice(0, 1)).forEach((source) => {
                const key = `${source.label}\n${name}`;
                const tag = `${number + 1}${source.label}`;
                const old = this.shown.get(key);
                const row = old?.row ?? this.makeRow(name);
                const facts = source.factsOf(name);
                shown.set(key, { key, name, source, facts, tag, color: "", known: old?.known ?? new Map(), strip: null, columns: old?.columns ?? new Columns(), row });
                setText(row.name, plain(name) + (source.label ? ` (${source.label})` : ""));
                row.name.title = plain([name, facts?.description, facts ? "" : "not measured"].filter(Boolean).join(" – "));
                row.element.classList.toggle("absent", !facts);
                setText(row.unit, plain(facts?.unit ?? ""));
                row.own.setAttribute("aria-pressed", String(this.own.has(name)));
            });
        });
        this.shown = shown;
        this.body.replaceChildren(...[...shown.values()].map((one) => one.row.element));
        const list = this.signals.map(plain).join(", ") || "empty";
        this.plot.setAttribute("aria-label", `Plot: ${list}`);
        this.canvas.setAttribute("aria-label", `Plot of ${list} over time; the table beside it has the values`);
    }

    /** @param {string} name @returns {Row} */
    makeRow(name) {
        const cell = (/** @type {string} */ kind) => make("td", { class: kind });
        const swatch = make("span", { class: "swatch", "aria-hidden": "true" });
        const label = make("button", { type: "button", class: "name", "aria-pressed": "false", onclick: () => this.highlight(name) });
        const own = make("button", { type: "button", class: "small", text: "⇅", title: "scale of its own", "aria-label": `${name}: scale of its own`,
            onclick: () => this.actions.onOwnScale(this, name) });
        const remove = make("button", { type: "button", class: "small", text: "✕", title: "remove (Delete)", "aria-label": `remove ${name}`,
            onclick: () => this.actions.onRemoveSignal(this, name) });
        const row = { name: label, swatch, value: cell("number"), a: cell("number"), b: cell("number"), difference: cell("number"), unit: cell("unit"), own };
        const element = make("tr", { onkeydown: (/** @type {KeyboardEvent} */ event) => {
            if (event.key === "Delete") this.actions.onRemoveSignal(this, name);
        } }, make("th", { scope: "row" }, swatch, label), row.value, row.a, row.b, row.difference, row.unit, make("td", { class: "tools" }, own, remove));
        return { ...row, element };
    }

    /** @param {string} name */
    highlight(name) {
        this.highlighted = this.highlighted === name ? null : name;
        for (const one of this.shown.values()) one.row.name.setAttribute("aria-pressed", String(one.name === this.highlighted));
        this.actions.onChoose(this);
    }

    /** @param {Shown} one @returns {string} the key of its scale */
    keyOf(one) {
        return this.own.has(one.name) || one.facts?.texts ? `=${one.name}` : `unit ${one.facts?.unit ?? ""}`;
    }

    /** Scales in the order of their first signals: one for each unit, and those of signals that have their own. */
    collectScales() {
        /** @type {Map<string, {scale: Scale, members: Shown[]}>} */
        const found = new Map();
        for (const one of this.shown.values()) {
            const key = this.keyOf(one);
            const isOwn = key.startsWith("=");
            const entry = found.get(key);
            if (entry) entry.members.push(one);
            else {
                const scale = { key, label: isOwn ? one.tag : one.facts?.unit || "", range: { low: 0, high: 1 }, texts: one.facts?.texts ?? null, color: null };
                found.set(key, { scale, members: [one] });
            }
        }
        return [...found.values()];
    }

    /**
     * @param {{view: import("./view.js").TimeView, gutter: number, theme: import("./plot.js").Theme, sources: Source[],
     *          happenings: import("./sources.js").Happening[], band: {from: number, to: number} | null,
     *          hover: number | null, message: string}} state
     */
    draw(state) {
        const { view, theme, gutter } = state;
        this.measureSize();
        const { width, height, ratio } = this.size;
        if (width <= gutter || height < 10) return;
        const columns = Math.round((width - gutter) * ratio);
        for (const one of this.shown.values()) {
            one.strip = one.source.strip(one.name, view.from, view.to, columns, one.strip);
            columnsOf(one.strip, view.from, view.to, columns, one.columns);
        }
        const scales = this.collectScales();
        const traces = [];
        for (const { scale, members } of scales) {
            scale.range = this.rangeOf(scale.key, members);
            for (const one of members) {
                const number = this.signals.indexOf(one.name);
                const color = theme.palette[(number * state.sources.length + state.sources.indexOf(one.source)) % theme.palette.length];
                one.color = color;
                if (members.length === 1) scale.color = color;
                one.row.swatch.style.background = color;
                setText(one.row.swatch, one.tag);
                traces.push({ columns: one.columns, scale, tag: one.tag, color, second: state.sources.indexOf(one.source) % 2 === 1,
                    steps: Boolean(one.facts?.integer), faint: this.highlighted !== null && this.highlighted !== one.name,
                    dots: Boolean(one.strip?.exact) && one.columns.count < columns / 10 });
            }
        }
        this.scales = scales.map((one) => one.scale);
        drawPane(this.context, width, height, ratio, { from: view.from, to: view.to, gutter, traces, scales: this.scales, theme,
            happenings: state.happenings, cursors: view.cursors, band: state.band, message: state.message });
    }

    /** @param {string} key @param {Shown[]} members */
    rangeOf(key, members) {
        const before = this.ranges.get(key) ?? null;
        if (before && this.fixed.has(key)) return before;
        let low = Infinity;
        let high = -Infinity;
        for (const { columns } of members) {
            low = Math.min(low, columns.low);
            high = Math.max(high, columns.high);
        }
        const range = fittingRange(low, high, before);
        this.ranges.set(key, range);
        return range;
    }

    /**
     * A cursor outside of what is shown keeps the value that it had when it was inside.
     * @param {Shown} one
     * @param {number} time
     * @param {import("./view.js").TimeView} view
     */
    valueOf(one, time, view) {
        if (time < view.from || time > view.to) return one.known.get(time) ?? null;
        const value = valueAt(/** @type {Strip} */ (one.strip), time);
        if (one.known.size > 8) one.known.clear();
        if (time === view.cursors.a || time === view.cursors.b) one.known.set(time, value);
        return value;
    }

    /**
     * The numbers of the legend.
     * @param {import("./view.js").TimeView} view
     * @param {number | null} hover the time at the pointer
     * @param {boolean} live
     */
    tell(view, hover, live) {
        const { a, b } = view.cursors;
        this.table.classList.toggle("a", a !== null);
        this.table.classList.toggle("b", b !== null);
        setText(this.heads[0], hover !== null ? "pointer" : live && view.follows ? "now" : "edge");
        for (const one of this.shown.values()) {
            const at = (/** @type {number | null} */ time) => (time === null || !one.strip ? null : this.valueOf(one, time, view));
            const told = (/** @type {ReturnType<typeof at>} */ found) => {
                if (!found) return "–";
                const isOne = found.least === found.greatest || Math.abs(found.greatest - found.least) < 1e-6 * Math.abs(found.greatest);
                return isOne || live ? valueText(one.facts, found.last) : `${valueText(one.facts, found.least)} … ${valueText(one.facts, found.greatest)}`;
            };
            if (hover === null && live && view.follows) setText(one.row.value, valueText(one.facts, /** @type {any} */ (one.source).store.lastOf(one.name)));
            else setText(one.row.value, told(at(hover ?? view.to)));
            if (a !== null) setText(one.row.a, told(at(a)));
            if (b !== null) setText(one.row.b, told(at(b)));
            const [first, second] = [at(a), at(b)];
            setText(one.row.difference, first && second ? formatNumber(second.last - first.last, 7) : "");
        }
    }
}
