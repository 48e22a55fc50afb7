// @ts-check
// The recordings of the server: their list, opening one or several over each other, and what is taken out of them.

import { encode, getJson, reason } from "./api.js";
import { button, download, make, say, setText } from "./dom.js";
import { RecordedSource } from "./sources.js";
import { formatBytes, formatTime, plain } from "./text.js";

const PAGE = 200;
const MOST_OPEN = 8;
const LABELS = "abcdefgh";

/** @param {number} utcNs */
function dateText(utcNs) {
    if (!utcNs) return "";
    const date = new Date(Number(utcNs) / 1e6);
    return `${date.toLocaleDateString("sv-SE")} ${date.toLocaleTimeString("sv-SE")}`;
}

export class Recordings {
    /**
     * @param {HTMLElement} host
     * @param {{onOpen(sources: RecordedSource[]): void, onLive(): void, onSignal(name: string): void, hasEcu: boolean, redraw(): void, rearrange(): void}} actions
     */
    constructor(host, actions) {
        this.actions = actions;
        /** @type {RecordedSource[]} */
        this.open = [];
        /** @type {any[]} */
        this.list = [];
        this.byClock = false;
        this.filter = make("input", { type: "search", "aria-label": "search recordings", placeholder: "Search recordings", oninput: () => this.showList() });
        this.body = make("tbody");
        this.count = make("output", { class: "soft" });
        this.opened = make("div", { class: "opened" });
        this.signalFilter = make("input", { type: "search", "aria-label": "search signals of the open recordings", placeholder: "Search their signals", oninput: () => this.showSignals() });
        this.signals = make("ul", { class: "signals", "aria-label": "signals of the open recordings" });
        host.append(make("div", { class: "find" }, this.filter, make("div", { class: "group" }, button("Reload", () => this.load()), this.count)), this.opened,
            make("div", { class: "scroll" }, make("table", { class: "list" }, this.body)));
        this.showOpened();
    }

    async load() {
        try {
            const told = await getJson(`/v1/recordings?offset=0&count=${PAGE}`);
            this.list = told.details ?? told.recordings.map((/** @type {string} */ name) => ({ name }));
            this.total = told.total ?? this.list.length;
        } catch (error) {
            this.list = [];
            say(`The recordings cannot be listed: ${reason(error)}`, true);
        }
        this.showList();
    }

    showList() {
        const words = this.filter.value.toLowerCase().split(/\s+/).filter(Boolean);
        const found = this.list.filter((one) => words.every((word) => one.name.toLowerCase().includes(word)));
        setText(this.count, `${found.length} of ${this.total ?? this.list.length}`);
        this.body.replaceChildren(...found.map((one) => {
            const losses = (one.lost ?? 0) + (one.missedCycles ?? 0);
            const trouble = [losses && `⚠ ${losses} lost`, one.outages && `▨ ${one.outages} outage(s)`, one.complete === false && "not ended"].filter(Boolean).join(" ");
            const isOpen = this.open.some((source) => source.name === one.name);
            const box = make("input", { type: "checkbox", "aria-label": `open ${one.name}`, onchange: () => this.toggle(one.name, box.checked) });
            box.checked = isOpen;
            const ecus = one.ecus?.join(", ") ?? one.ecu ?? "";
            const name = button(one.name, () => this.only(one.name), { class: "link", title: `${one.name}\n${ecus}\n${one.records ?? "?"} records\nopens it alone; the box beside it opens it over the others` });
            const length = one.durationNs === undefined ? "" : formatTime(one.durationNs / 1e9, one.durationNs < 6e10 ? 1 : 0);
            const facts = [length, one.bytes !== undefined && formatBytes(one.bytes), ecus].filter(Boolean).join(" · ");
            return make("tr", {}, make("td", {}, box), make("td", {}, name, make("div", { class: "soft", text: dateText(one.startUtcNs) }), make("div", { class: "soft", text: facts }),
                make("div", { class: trouble ? "bad" : "soft", text: trouble || (one.outages === 0 ? "no outage" : "") })));
        }));
    }

    /** @param {string} name */
    only(name) {
        this.open = this.open.filter((source) => source.name === name);
        return this.toggle(name, true);
    }

    /** @param {string} name @param {boolean} on */
    async toggle(name, on) {
        this.open = this.open.filter((source) => source.name !== name);
        if (on && this.open.length >= MOST_OPEN) {
            say(`${MOST_OPEN} recordings at most lie over each other.`, true);
            on = false;
        }
        if (on) {
            const source = new RecordedSource(name, () => this.actions.redraw(), (error) => say(`${name}: ${reason(error)}`, true));
            try {
                await source.open();
                this.open.push(source);
            } catch (error) {
                say(`${name} cannot be opened: ${reason(error)}`, true);
            }
        }
        this.open.forEach((source, place) => { source.label = this.open.length > 1 ? LABELS[place] : ""; });
        this.align();
        this.showOpened();
        this.showList();
        if (this.open.length) this.actions.onOpen(this.open);
        else this.actions.onLive();
    }

    /** All from their starts, or where the clock was. */
    align() {
        const first = Math.min(...this.open.map((source) => source.startUtcNs));
        for (const source of this.open) source.shift = (this.byClock && this.open.length > 1 ? (source.startUtcNs - first) / 1e9 : 0);
    }

    showOpened() {
        this.opened.hidden = this.open.length === 0;
        const rows = this.open.map((source) => {
            const shift = make("input", { type: "text", size: "5", value: String(source.shift), "aria-label": `shift of ${source.name} in seconds`, onchange: () => {
                const seconds = Number(shift.value.replace(",", "."));
                if (Number.isFinite(seconds)) source.shift = seconds;
                shift.value = String(source.shift);
                this.actions.redraw();
            } });
            return make("tr", {}, make("td", {}, make("strong", { text: source.label ? `${source.label} ` : "" }), make("span", { text: source.name })), make("td", {}, make("span", { class: "soft", text: "+ " }), shift, make("span", { class: "soft", text: " s" })),
                make("td", {}, button("✕", () => this.toggle(source.name, false), { class: "small", "aria-label": `close ${source.name}` })));
        });
        const align = make("select", { "aria-label": "alignment", onchange: () => {
            this.byClock = align.value === "clock";
            this.align();
            this.showOpened();
            this.actions.onOpen(this.open);
        } }, make("option", { value: "start", text: "from their starts" }), make("option", { value: "clock", text: "by the clock" }));
        align.value = this.byClock ? "clock" : "start";
        this.opened.replaceChildren(make("h2", { text: "Open" }), make("table", { class: "list" }, make("tbody", {}, ...rows)),
            make("div", { class: "group" }, this.open.length > 1 && align, this.actions.hasEcu && button("Back to live", () => this.closeAll())), this.signalFilter, this.signals);
        this.showSignals();
    }

    showSignals() {
        const words = this.signalFilter.value.toLowerCase().split(/\s+/).filter(Boolean);
        /** @type {Map<string, any>} */
        const all = new Map();
        for (const source of this.open) for (const signal of source.signals) if (!all.has(signal.name)) all.set(signal.name, signal);
        const found = [...all.values()].filter((one) => words.every((word) => `${one.name} ${one.description ?? ""}`.toLowerCase().includes(word)));
        this.signals.replaceChildren(...found.slice(0, 500).map((one) => {
            const add = button(one.name, () => this.actions.onSignal(one.name), { class: "link", draggable: "true", title: `${one.name} – ${one.description ?? ""}\ninto the chosen pane` });
            add.addEventListener("dragstart", (event) => event.dataTransfer?.setData("text/plain", `m\t${one.name}`));
            return make("li", {}, add, make("span", { class: "soft", text: ` ${one.unit ?? ""}` }));
        }));
    }

    closeAll() {
        this.open = [];
        this.showOpened();
        this.showList();
        this.actions.onLive();
    }

    /**
     * What is seen, as files of the server, one for each open recording.
     * @param {string} form
     * @param {string[]} names
     * @param {number} from
     * @param {number} to
     */
    exportSeen(form, names, from, to) {
        for (const source of this.open) {
            const places = names.map((name) => source.places.get(name)).filter((place) => place !== undefined);
            const begin = Math.round(Math.max(from - source.shift, source.begin) * 1e9);
            const end = Math.round(Math.min(to - source.shift, source.end) * 1e9);
            if (places.length === 0 || end < begin) {
                say(`Nothing of ${plain(source.name)} is seen.`, true);
                continue;
            }
            download(`/v1/recordings/${encode(source.name)}/export?form=${form}&from=${begin}&to=${end}&signals=${places.join(",")}`, `${source.name}.${form}`);
        }
    }
}
