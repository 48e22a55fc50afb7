// @ts-check
// Puts the parts of the page together: what one of them wants done is done by another only through here.

import { getJson, login, reason } from "./api.js";
import { Control } from "./control.js";
import { button, byId, download, inTextField, make, say, setText } from "./dom.js";
import { makeHelp } from "./help.js";
import { Layouts } from "./layouts.js";
import { SCHEMA } from "./layout.js";
import { Link } from "./link.js";
import { Log } from "./log.js";
import { Objects } from "./objects.js";
import { Parameters } from "./parameters.js";
import { Plots } from "./plots.js";
import { Recordings } from "./recordings.js";
import { LiveSource } from "./sources.js";
import { svgOf } from "./svg.js";
import { startTheme, themeNow } from "./theme.js";
import { plain } from "./text.js";

const MOST_ELEMENTS = 32;
const POINT_MS = 60;

class Cockpit {
    /** @param {any} told what is served */
    constructor(told) {
        this.told = told;
        this.ecu = told.ecus[0]?.name ?? "";
        this.hasEcu = this.ecu !== "";
        this.live = new LiveSource();
        this.log = new Log(byId("log"));
        this.plots = new Plots(this.live, { onSignals: () => this.signalsChanged(), onDrop: (text, pane) => this.drop(text, pane) });
        this.control = new Control({ ecu: () => this.ecu, wanted: () => this.wanted, onStarted: () => this.plots.follow(true) });
        this.control.onMark = (text) => this.live.note({ from: this.live.store.newest, to: this.live.store.newest, kind: "mark", text });
        this.parameters = new Parameters({ ecu: () => this.ecu, canWrite: () => told.canWrite !== false && !told.readOnly, hasFiles: () => Boolean(told.parameterFiles), onInputs: () => this.signalsChanged(),
            valueOf: (name) => this.live.store.lastOf(name), factsOf: (name) => this.live.factsOf(name) });
        this.side = makeSide(byId("side"), this.hasEcu);
        this.objects = new Objects(this.side.panels[0], { onUse: (name, kind, fresh) => this.use(name, kind, fresh) });
        this.recordings = new Recordings(this.side.panels[1], { hasEcu: this.hasEcu, onOpen: (sources) => this.openRecorded(sources), onLive: () => this.backToLive(),
            onSignal: (name) => this.plots.addSignals([name]), redraw: () => this.plots.request(), rearrange: () => this.plots.rearrange() });
        this.layouts = new Layouts(byId("menu"), { collect: () => this.collect(), apply: (layout) => this.apply(layout) });
        this.help = makeHelp({ markKey: () => this.control.markKey, setMarkKey: (key) => this.control.setMarkKey(key), onTheme: () => this.redraw() });
        byId("menu").append(button("?", () => this.help.showModal(), { "aria-label": "settings and keys", title: "settings and keys (?)" }));
        this.makeExports();
        this.outageFrom = NaN;
        this.pointAt = 0;
        this.link = new Link(this.ecu, (frame) => this.onFrame(frame), (open, why) => this.linked(open, why));
        document.addEventListener("keydown", (event) => this.onKey(event));
    }

    async start() {
        this.plots.addPane();
        this.plots.emptyText = this.hasEcu ? "Search for a signal on the left, press Enter or drag it here" : "Open a recording on the left";
        byId("controls").hidden = byId("losses").hidden = byId("parameters").hidden = byId("log").hidden = !this.hasEcu;
        byId("main").classList.toggle("view", !this.hasEcu);
        this.showEcus();
        if (this.hasEcu) {
            this.link.want([]);
            this.objects.open(this.ecu);
        } else {
            setText(byId("state"), "recordings");
            this.side.choose(1);
        }
        if (this.told.recordings || !this.hasEcu) this.recordings.load();
        if (this.told.layouts) await this.layouts.load(true);
    }

    showEcus() {
        const select = byId("ecu");
        select.replaceChildren(...this.told.ecus.map((/** @type {any} */ one) => make("option", { value: one.name, text: one.name })));
        select.hidden = this.told.ecus.length < 2;
        byId("title").textContent = this.hasEcu ? plain(this.ecu) : "XCP-Lumo";
        select.title = this.told.ecus.map((/** @type {any} */ one) => `${one.name} ${one.address}`).join("\n");
        document.title = this.hasEcu ? `${plain(this.ecu)} – XCP-Lumo` : "Recordings – XCP-Lumo";
        select.addEventListener("change", () => location.reload());
    }

    /** What is measured: what is plotted, and what the axes of the shown maps are over. */
    get wanted() {
        return [...new Set([...this.plots.names, ...this.parameters.inputs])];
    }

    signalsChanged() {
        if (!this.hasEcu) return;
        this.link.want(this.wanted);
        if (this.plots.isLive) this.control.remeasure();
    }

    /** @param {import("./frames.js").Frame} frame */
    onFrame(frame) {
        if (frame.kind === "window") {
            this.live.append(frame);
            if (this.plots.isLive) this.plots.request();
            const now = performance.now();
            if (now - this.pointAt < POINT_MS) return;
            this.pointAt = now;
            this.parameters.follow();
        } else if (frame.kind === "event") {
            this.onEvent(frame.data);
        }
    }

    /** @param {any} data */
    onEvent(data) {
        if (data.event === "signals") {
            this.live.setSignals(data);
            this.plots.rearrange();
        } else if (data.event === "state") {
            this.noteOutage(data.state);
            const wasRecording = Boolean(this.control.state.recording);
            this.control.take(data);
            if (wasRecording && !data.recording) this.recordings.load();
        } else if (data.event === "missed") {
            this.control.miss(data.missed);
        } else if (data.event === "log") {
            for (const entry of data.entries) this.log.add(entry);
        } else if (data.event === "writes") {
            this.onWrites(data.entries);
        }
    }

    /** @param {any[]} entries */
    onWrites(entries) {
        for (const entry of entries) {
            const [old, now] = [entry.old?.text, entry.new?.text].map((one) => (Array.isArray(one) ? "…" : one ?? "?"));
            this.log.add({ time: entry.time, text: `${entry.name}: ${old} → ${now} (${entry.client})` });
            const at = this.live.timeOf(Date.parse(entry.time));
            if (at === at) this.live.note({ from: at, to: at, kind: "write", text: `${entry.name} ${old} → ${now}` });
        }
        this.parameters.onWrites(entries);
        this.plots.request();
    }

    /** @param {string} state */
    noteOutage(state) {
        const gone = state === "reconnecting" || state === "disconnected" || state === "failed";
        const { newest } = this.live.store;
        if (gone && this.outageFrom !== this.outageFrom && newest === newest) this.outageFrom = newest;
        if (!gone && this.outageFrom === this.outageFrom) {
            this.live.note({ from: this.outageFrom, to: Math.max(newest, this.outageFrom), kind: "outage", text: "no ECU" });
            this.outageFrom = NaN;
        }
    }

    /** @param {boolean} open @param {string} why */
    linked(open, why) {
        const place = byId("lost");
        place.hidden = open;
        setText(place, open ? "" : `⚠ No connection to the server: ${plain(why)}. What is shown is old. Trying again…`);
        document.body.classList.toggle("stale", !open);
        this.live.store.interrupt();
        if (open) this.parameters.reloadAll();
    }

    /** @param {string} text what was dragged @param {import("./pane.js").Pane} pane */
    drop(text, pane) {
        const [kind, name] = text.split("\t");
        if (!name) return;
        this.plots.choose(pane);
        this.use(name, kind, false);
    }

    /** @param {string} name @param {string} kind @param {boolean} fresh into a new pane */
    async use(name, kind, fresh) {
        if (kind !== "m") {
            this.tabs?.choose("parameters");
            return this.parameters.add(name);
        }
        if (!this.plots.isLive) this.backToLive();
        try {
            const names = this.plots.isLive && this.hasEcu ? await this.elements(name) : [name];
            if (fresh) this.plots.addPane();
            this.plots.addSignals(names);
            say(`${plain(names.length > 1 ? `${names.length} elements of ${name}` : name)} is in the pane${this.control.isMeasuring ? "" : "; press Measure to see it"}`);
        } catch (error) {
            say(`${plain(name)}: ${reason(error)}`, true);
        }
        return undefined;
    }

    /** Arrays are measured by element. @param {string} name @returns {Promise<string[]>} */
    async elements(name) {
        const { object } = await getJson(`/v1/ecus/${encodeURIComponent(this.ecu)}/objects/${encodeURIComponent(name)}`);
        let names = [name];
        const sizes = [...(object.dimensions ?? [])];
        while (sizes.length && sizes.at(-1) === 1) sizes.pop();
        for (const size of sizes) names = names.flatMap((one) => Array.from({ length: Math.min(size, MOST_ELEMENTS) }, (_none, i) => `${one}[${i}]`));
        if (names.length > MOST_ELEMENTS) say(`Of ${plain(name)} the first ${MOST_ELEMENTS} elements are taken.`);
        return names.slice(0, MOST_ELEMENTS);
    }

    /** @param {import("./sources.js").RecordedSource[]} sources */
    openRecorded(sources) {
        const wasLive = this.plots.isLive;
        const known = (/** @type {string} */ name) => sources.some((source) => source.factsOf(name));
        if (!this.plots.names.some(known)) this.plots.addSignals(sources[0].signals.slice(0, 4).map((signal) => signal.name), this.plots.panes[0]);
        this.plots.setMode(false, sources);
        if (wasLive || sources.length === 1) this.plots.fit();
        setText(byId("mode"), `Recording ${sources.map((source) => plain(source.label ? `${source.label} ${source.name}` : source.name)).join(" · ")}`);
        byId("mode").hidden = false;
    }

    backToLive() {
        byId("mode").hidden = true;
        if (this.plots.isLive) return;
        this.plots.setMode(true, []);
        if (this.recordings.open.length) this.recordings.closeAll();
        this.signalsChanged();
    }

    makeExports() {
        const mode = make("span", { id: "mode", class: "badge", hidden: true });
        const seen = (/** @type {string} */ form) => {
            if (this.plots.isLive) return say("This takes what is seen of a recording: open one on the left.");
            return this.recordings.exportSeen(form, this.plots.names, this.plots.view.from, this.plots.view.to);
        };
        byId("tools").prepend(mode);
        byId("tools").append(button("SVG", () => this.saveSvg(), { title: "a picture of what is seen" }), button("MF4", () => seen("mf4"), { title: "what is seen of the recording, as MF4" }),
            button("CSV", () => seen("csv"), { title: "what is seen of the recording, as CSV" }), this.plots.readout);
    }

    saveSvg() {
        const { plots } = this;
        const theme = themeNow();
        const panes = plots.panes.map((pane) => ({ height: Math.max(80, pane.size.height), sourceWidth: (pane.size.width - (plots.gutter ?? 0)) * pane.size.ratio,
            traces: [...pane.shown.values()].filter((one) => one.columns.count).map((one) => {
                const range = pane.ranges.get(pane.keyOf(one)) ?? { low: 0, high: 1 };
                return { tag: one.tag, name: one.name, unit: one.facts?.unit ?? "", color: one.color, second: plots.sources.indexOf(/** @type {any} */ (one.source)) % 2 === 1,
                    steps: Boolean(one.facts?.integer), low: range.low, high: range.high, columns: one.columns };
            }) }));
        const title = plots.isLive ? `${this.ecu}, ${new Date().toISOString()}` : plots.recorded.map((source) => source.name).join(", ");
        const text = svgOf({ title, from: plots.view.from, to: plots.view.to, width: 900, background: theme.background, text: theme.text, grid: theme.grid, outage: theme.outage,
            happenings: plots.sources.flatMap((source) => source.happenings), panes });
        download(new Blob([text], { type: "image/svg+xml" }), "xcplumo.svg");
    }

    /** @returns {import("./layout.js").Layout} */
    collect() {
        return { schema: SCHEMA, panes: this.plots.panes.map((pane) => ({ signals: pane.signals, own: [...pane.own], height: pane.height })), parameters: this.parameters.names, span: this.plots.view.span,
            recorded: this.plots.isLive ? [] : this.recordings.open.map((source) => source.name) };
    }

    /** @param {import("./layout.js").Layout} layout */
    apply(layout) {
        for (const pane of [...this.plots.panes].slice(1)) this.plots.removePane(pane);
        const panes = layout.panes.length ? layout.panes : [{ signals: [], own: [], height: 1 }];
        panes.forEach((one, place) => {
            const pane = this.plots.panes[place] ?? this.plots.addPane();
            Object.assign(pane, { signals: [...one.signals], own: new Set(one.own), height: one.height });
            pane.element.style.flexGrow = String(one.height);
        });
        this.plots.views.live.setSpan(layout.span);
        this.plots.rearrange();
        this.plots.changed();
        for (const name of this.parameters.names) if (!layout.parameters.includes(name)) this.parameters.remove(name);
        if (this.hasEcu) for (const name of layout.parameters) this.parameters.add(name, false);
        this.signalsChanged();
    }

    redraw() {
        this.plots.changed();
        for (const item of this.parameters.items.values()) this.parameters.drawPicture(item);
    }

    /** @param {KeyboardEvent} event */
    onKey(event) {
        const isFind = (event.ctrlKey && event.key.toLowerCase() === "k") || (event.key === "/" && !inTextField(event) && !event.defaultPrevented);
        if (isFind) {
            event.preventDefault();
            this.tabs?.choose("side");
            this.side.choose(this.plots.isLive && this.hasEcu ? 0 : 1);
            this.side.panels[this.plots.isLive && this.hasEcu ? 0 : 1].querySelector("input")?.focus();
        } else if (event.key === "?" && !inTextField(event)) {
            this.help.showModal();
        }
    }

    /** @type {ReturnType<typeof makeTabs> | undefined} */
    tabs;
}

/** Objects and recordings, one of them at a time. @param {HTMLElement} host @param {boolean} hasEcu */
function makeSide(host, hasEcu) {
    const names = ["Objects", "Recordings"];
    const panels = names.map((name, i) => make("div", { id: `panel${i}`, class: "panel", role: "tabpanel", "aria-label": name }));
    const tabs = names.map((name, i) => make("button", { type: "button", role: "tab", text: name, "aria-controls": `panel${i}`, onclick: () => choose(i) }));
    const list = make("div", { class: "tabs", role: "tablist", "aria-label": "Objects or recordings" }, ...tabs);
    const choose = (/** @type {number} */ place) => tabs.forEach((tab, i) => {
        tab.setAttribute("aria-selected", String(i === place));
        tab.tabIndex = i === place ? 0 : -1;
        panels[i].hidden = i !== place;
    });
    list.addEventListener("keydown", (event) => {
        if (event.key !== "ArrowLeft" && event.key !== "ArrowRight") return;
        const next = panels[0].hidden ? 0 : 1;
        choose(next);
        tabs[next].focus();
    });
    if (!hasEcu) tabs[0].hidden = true;
    host.append(list, ...panels);
    choose(0);
    return { panels, choose };
}

/** On narrow screens one part of the page at a time. */
function makeTabs() {
    const parts = ["side", "plots", "parameters", "log"];
    const titles = ["Objects", "Plots", "Parameters", "Log"];
    const tabs = parts.map((part, i) => make("button", { type: "button", role: "tab", "aria-controls": part, text: titles[i], onclick: () => choose(part) }));
    const choose = (/** @type {string} */ chosen) => {
        document.body.dataset.part = chosen;
        tabs.forEach((tab, i) => tab.setAttribute("aria-selected", String(parts[i] === chosen)));
    };
    byId("tabs").append(...tabs);
    choose("plots");
    return { choose };
}

async function start() {
    /** @type {Cockpit | undefined} */
    let cockpit;
    startTheme(() => cockpit?.redraw());
    try {
        await login();
        cockpit = new Cockpit(await getJson("/v1"));
        cockpit.tabs = makeTabs();
        Object.assign(globalThis, { cockpit });
        await cockpit.start();
        document.documentElement.dataset.ready = "true";
    } catch (error) {
        const status = /** @type {any} */ (error).status;
        const place = byId("lost");
        place.hidden = false;
        setText(place, status === 401 ? "⚠ This page needs the whole address that the program printed, with #token=… at its end." : `⚠ This page cannot start: ${plain(reason(error))}`);
    }
}

start();
