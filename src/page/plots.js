// @ts-check
// All panes over one time axis, live or recorded, and the loop that draws them: one picture for each frame, of the newest state.

import { Axis } from "./axis.js";
import { button, byId, make, setText } from "./dom.js";
import { listen } from "./gestures.js";
import { Pane } from "./pane.js";
import { SCALE_WIDTH } from "./plot.js";
import { formatNumber, formatTime } from "./text.js";
import { themeNow } from "./theme.js";
import { TimeView } from "./view.js";
import { MOST_PANES } from "./layout.js";

const LEGEND_MS = 120;

export class Plots {
    /**
     * @param {import("./sources.js").LiveSource} live
     * @param {{onSignals(): void, onDrop(text: string, pane: Pane): void}} actions
     */
    constructor(live, actions) {
        this.live = live;
        this.actions = actions;
        /** @type {import("./sources.js").RecordedSource[]} */
        this.recorded = [];
        this.isLive = true;
        this.view = new TimeView();
        this.views = { live: this.view, recorded: new TimeView() };
        this.views.recorded.follows = false;
        /** @type {Pane[]} */
        this.panes = [];
        /** @type {Pane | null} */
        this.chosen = null;
        this.band = /** @type {{from: number, to: number} | null} */ (null);
        this.hover = /** @type {number | null} */ (null);
        this.active = /** @type {"a" | "b"} */ ("a");
        this.axis = new Axis();
        this.gutter = SCALE_WIDTH;
        this.followButton = button("‖ Pause", () => this.follow(!this.view.follows), { title: "f: pause or follow" });
        this.readout = make("output", { class: "readout", "aria-label": "cursors" });
        this.pictures = 0;
        this.drawMs = 0;
        this.asked = false;
        this.toldAt = 0;
        this.emptyText = "";
        this.host = byId("panes");
        byId("axis").append(this.axis.canvas);
        new ResizeObserver(() => this.request()).observe(this.host);
        this.spanSelect = this.makeTools(byId("tools"));
    }

    /** @param {HTMLElement} tools */
    makeTools(tools) {
        const spans = /** @type {[number, string][]} */ ([[1, "1 s"], [5, "5 s"], [10, "10 s"], [30, "30 s"], [60, "1 min"], [300, "5 min"], [1800, "30 min"], [7200, "2 h"], [36000, "10 h"]]);
        const select = make("select", { "aria-label": "length of time shown", onchange: () => {
            if (Number(select.value) > 0) this.view.setSpan(Number(select.value));
            this.changed();
        } }, ...spans.map(([value, text]) => make("option", { value: String(value), text })), make("option", { value: "0", text: "other" }));
        tools.append(
            this.followButton, select,
            button("−", () => { this.view.zoom(2); this.changed(); }, { "aria-label": "zoom out", title: "zoom out (−)" }),
            button("+", () => { this.view.zoom(0.5); this.changed(); }, { "aria-label": "zoom in", title: "zoom in (+)" }),
            button("Fit", () => this.fit(), { title: "h: all of the time, scales that fit" }),
            button("A", () => this.toggleCursor("a"), { "aria-label": "cursor A", title: "cursor A: click in a plot, or key a" }),
            button("B", () => this.toggleCursor("b"), { "aria-label": "cursor B", title: "cursor B: Shift+click in a plot, or key b" }),
            button("+ Pane", () => this.addPane(), { title: "a further pane" }));
        return select;
    }

    /** @returns {(import("./sources.js").LiveSource | import("./sources.js").RecordedSource)[]} */
    get sources() {
        return this.isLive ? [this.live] : this.recorded;
    }

    /** All names that are shown, each once. */
    get names() {
        return [...new Set(this.panes.flatMap((pane) => pane.signals))];
    }

    /** @param {boolean} live @param {import("./sources.js").RecordedSource[]} [recorded] */
    setMode(live, recorded = this.recorded) {
        this.isLive = live;
        this.recorded = recorded;
        this.view = live ? this.views.live : this.views.recorded;
        this.rearrange();
        for (const pane of this.panes) pane.ranges.clear();
        this.changed();
    }

    addPane() {
        if (this.panes.length >= MOST_PANES) return /** @type {Pane} */ (this.panes.at(-1));
        const pane = new Pane({
            onRemoveSignal: (at, name) => this.removeSignal(at, name),
            onOwnScale: (at, name) => {
                if (!at.own.delete(name)) at.own.add(name);
                this.rearrange();
            },
            onRemove: (at) => this.removePane(at),
            onChoose: (at) => this.choose(at),
        });
        listen(pane, {
            view: /** @type {any} */ (new Proxy({}, this.viewProxy())), gutter: () => this.gutter, changed: () => this.changed(), fit: () => this.fit(),
            follow: (on) => this.follow(on), setBand: (band) => { this.band = band; },
            setHover: (time) => { this.hover = time; this.request(); },
            setCursor: (name, time) => this.setCursor(name, time), activeCursor: () => this.active,
        });
        pane.element.addEventListener("dragover", (event) => {
            event.preventDefault();
            pane.element.classList.add("over");
        });
        pane.element.addEventListener("dragleave", () => pane.element.classList.remove("over"));
        pane.element.addEventListener("drop", (event) => {
            event.preventDefault();
            pane.element.classList.remove("over");
            this.actions.onDrop(event.dataTransfer?.getData("text/plain") ?? "", pane);
        });
        this.panes.push(pane);
        this.host.append(pane.element);
        this.choose(pane);
        this.rearrange();
        return pane;
    }

    /** The view changes with the mode; gestures always mean the one that is shown. @returns {ProxyHandler<any>} */
    viewProxy() {
        return { get: (_none, key) => {
            const value = /** @type {any} */ (this.view)[key];
            return typeof value === "function" ? value.bind(this.view) : value;
        } };
    }

    /** @param {Pane} pane */
    choose(pane) {
        this.chosen = pane;
        for (const one of this.panes) one.element.classList.toggle("chosen", one === pane && this.panes.length > 1);
    }

    /** @param {Pane} pane */
    removePane(pane) {
        this.panes = this.panes.filter((one) => one !== pane);
        pane.element.remove();
        if (this.panes.length === 0) this.addPane();
        this.choose(/** @type {Pane} */ (this.panes.at(-1)));
        this.actions.onSignals();
        this.changed();
    }

    /** @param {string[]} names @param {Pane | null} [pane] */
    addSignals(names, pane = this.chosen) {
        const at = pane ?? this.panes[0] ?? this.addPane();
        at.signals.push(...names.filter((name) => !at.signals.includes(name)));
        this.rearrange();
        this.actions.onSignals();
    }

    /** @param {Pane} pane @param {string} name */
    removeSignal(pane, name) {
        const place = pane.signals.indexOf(name);
        pane.signals = pane.signals.filter((one) => one !== name);
        this.rearrange();
        const rows = pane.body.querySelectorAll("button.name");
        /** @type {HTMLElement} */ (rows[Math.min(place, rows.length - 1)] ?? pane.plot).focus();
        this.actions.onSignals();
    }

    /** Takes what the sources know now. */
    rearrange() {
        for (const pane of this.panes) pane.arrange(this.sources);
        this.request();
    }

    /** @param {boolean} on */
    follow(on) {
        if (!this.isLive) return;
        this.view.follows = on;
        this.changed();
    }

    fit() {
        const ranges = this.sources.map((source) => source.range).filter((range) => range.from <= range.to);
        for (const pane of this.panes) {
            pane.fixed.clear();
            pane.ranges.clear();
        }
        if (ranges.length) {
            this.view.show(Math.min(...ranges.map((range) => range.from)), Math.max(...ranges.map((range) => range.to)));
        }
        this.changed();
    }

    /** @param {"a" | "b"} name */
    toggleCursor(name) {
        this.setCursor(name, this.view.cursors[name] === null ? (this.view.from + this.view.to) / 2 : null);
    }

    /** @param {"a" | "b"} name @param {number | null} time */
    setCursor(name, time) {
        this.active = name;
        this.view.cursors[name] = time;
        this.changed();
    }

    changed() {
        const follows = this.isLive && this.view.follows;
        setText(this.followButton, follows ? "‖ Pause" : "» Follow");
        this.followButton.hidden = !this.isLive;
        this.followButton.classList.toggle("urgent", this.isLive && !follows);
        const span = [...this.spanSelect.options].find((option) => Math.abs(Number(option.value) / this.view.span - 1) < 1e-3);
        this.spanSelect.value = span?.value ?? "0";
        const { a, b } = this.view.cursors;
        const difference = this.view.difference;
        const parts = [a !== null && `A ${formatTime(a, 6)}`, b !== null && `B ${formatTime(b, 6)}`,
            difference && `B − A ${formatTime(difference.seconds, 6)} (${formatNumber(difference.hertz, 5)} Hz)`];
        setText(this.readout, parts.filter(Boolean).join(" · "));
        byId("plots").classList.toggle("compared", a !== null || b !== null);
        this.toldAt = 0;
        this.request();
    }

    request() {
        if (this.asked) return;
        this.asked = true;
        requestAnimationFrame(() => {
            this.asked = false;
            this.draw();
        });
    }

    draw() {
        const begin = performance.now();
        if (this.isLive) this.view.follow(this.live.store.newest);
        const theme = themeNow();
        this.panes[0]?.measureSize();
        const width = this.panes[0]?.size.width ?? 0;
        if (width === 0) return;
        const many = Math.max(1, ...this.panes.map((pane) => pane.collectScales().length));
        const gutter = SCALE_WIDTH * Math.min(many, width < 260 ? 1 : width < 560 ? 2 : 3);
        this.gutter = gutter;
        const happenings = this.sources.flatMap((source) => source.happenings);
        if (!this.isLive) {
            const columns = Math.min(8190, Math.round((width - gutter) * (window.devicePixelRatio || 1)));
            for (const source of this.recorded) source.want(this.names, this.view.from, this.view.to, columns);
        }
        const loading = this.recorded.some((source) => source.loading) && !this.isLive;
        for (const pane of this.panes) {
            const message = pane.signals.length ? "" : this.emptyText;
            pane.draw({ view: this.view, gutter, theme, sources: this.sources, happenings, band: this.band, hover: this.hover, message });
        }
        this.host.classList.toggle("loading", loading);
        this.axis.draw(this.view, width, gutter, theme, happenings, "time");
        if (begin - this.toldAt > LEGEND_MS) {
            this.toldAt = begin;
            for (const pane of this.panes) pane.tell(this.view, this.hover, this.isLive);
        } else if (!this.late) {
            this.late = setTimeout(() => {
                this.late = undefined;
                this.toldAt = performance.now();
                for (const pane of this.panes) pane.tell(this.view, this.hover, this.isLive);
            }, LEGEND_MS);
        }
        ++this.pictures;
        this.drawMs += performance.now() - begin;
    }
}
