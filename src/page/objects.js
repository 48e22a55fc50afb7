// @ts-check
// The objects of the A2L: search as one types, and a tree by kind, group, function and structure. Only the rows in sight exist.

import { encode, getJson, reason, request } from "./api.js";
import { make, say, setText } from "./dom.js";
import { ObjectIndex } from "./search.js";
import { plain } from "./text.js";

/**
 * @typedef {import("./search.js").ObjectLine} ObjectLine
 * @typedef {{level: number, label: string, note: string, name: string | null, kind: string, open: boolean,
 *            load: (() => Promise<Entry[]>) | null, parent: Node | null, place: number, size: number}} Node
 * A row is a node, or the place of an object in the index below one.
 * @typedef {Node | number} Entry
 */

const ROW = 26;
const SIGNS = /** @type {Record<string, [string, string]>} */ ({
    m: ["∿", "measurement"], p: ["▪", "parameter"], c: ["⌒", "curve"], M: ["▦", "map"], b: ["▤", "block"], t: ["T", "text"], a: ["↔", "axis"], s: ["{}", "structure"], "": ["", ""],
});
const KIND_OF = /** @type {Record<string, string>} */ ({ CURVE: "c", MAP: "M", CUBOID: "M", VAL_BLK: "b", ASCII: "t", VALUE: "p" });

/** @param {any} told an object as `list` tells it @returns {string} */
export function kindOf(told) {
    if (told.kind === "measurement") return "m";
    if (told.kind === "axis") return "a";
    if (told.kind === "instance") return "s";
    return KIND_OF[told.type] ?? "b";
}

export class Objects {
    /**
     * @param {HTMLElement} host
     * @param {{onUse(name: string, kind: string, fresh: boolean): void}} actions
     */
    constructor(host, actions) {
        this.actions = actions;
        this.ecu = "";
        this.index = new ObjectIndex("");
        /** @type {Entry[]} */
        this.rows = [];
        this.roots = /** @type {Node[]} */ ([]);
        this.active = 0;
        this.isSearch = false;
        this.input = make("input", { type: "search", placeholder: "Search names and descriptions", "aria-label": "search objects", role: "combobox",
            "aria-controls": "tree", "aria-expanded": "true", "aria-autocomplete": "list", spellcheck: "false", autocomplete: "off", oninput: () => this.search() });
        this.kinds = make("select", { "aria-label": "kind of objects", onchange: () => this.search() },
            ...[["", "all kinds"], ["m", "measurements"], ["pcMbtas", "parameters"], ["cM", "curves, maps"]].map(([value, text]) => make("option", { value, text })));
        this.count = make("output", { class: "soft", "aria-label": "found" });
        this.inner = make("div", { class: "rows" });
        this.tree = make("div", { id: "tree", class: "tree", role: "tree", tabindex: "0", "aria-label": "objects" }, this.inner);
        this.tree.addEventListener("scroll", () => this.show());
        new ResizeObserver(() => this.show()).observe(this.tree);
        for (const at of [this.input, this.tree]) at.addEventListener("keydown", (event) => this.onKey(event));
        host.append(make("div", { class: "find" }, this.input, make("div", { class: "group" }, this.kinds, this.count)), this.tree,
            make("p", { class: "hint", text: "Enter: into the chosen pane or the parameters · Shift+Enter: new pane · or drag" }));
    }

    /** @param {string} ecu */
    async open(ecu) {
        this.ecu = ecu;
        try {
            const [names, folders] = await Promise.all([
                request("GET", `/v1/ecus/${encode(ecu)}/names`).then((answer) => answer.text()), getJson(`/v1/ecus/${encode(ecu)}/groups`)]);
            this.setIndex(new ObjectIndex(names), folders);
        } catch (error) {
            say(`The objects cannot be read: ${reason(error)}`, true);
        }
    }

    /** @param {ObjectIndex} index @param {{groups: any[], functions: any[]}} folders */
    setIndex(index, folders) {
        this.index = index;
        const places = (/** @type {string} */ kinds) => async () => [...index.lines.keys()].filter((place) => kinds.includes(index.lines[place][0]));
        const node = (/** @type {string} */ label, /** @type {Node["load"]} */ load, note = "") => this.node(null, label, load, note);
        const folder = (/** @type {string} */ key, /** @type {any[]} */ list) => async () => list.map((one) =>
            this.node(null, one.name, () => this.members(`${key}=${encode(one.name)}`), one.description));
        this.roots = [node("Measurements", places("m")), node("Parameters", places("pbt")), node("Curves and maps", places("cM")), node("Axes", places("a")),
            node("Structures", places("s")), node("Groups", folder("group", folders.groups)), node("Functions", folder("function", folders.functions))];
        this.search();
    }

    /**
     * @param {Node | null} parent
     * @param {string} label
     * @param {Node["load"]} load
     * @param {string} note
     * @param {string | null} name
     * @param {string} kind
     * @returns {Node}
     */
    node(parent, label, load, note = "", name = null, kind = "") {
        return { level: 0, label, note, name, kind, open: false, load, parent, place: 0, size: 0 };
    }

    /** @param {string} query @returns {Promise<Entry[]>} */
    async members(query) {
        const told = await getJson(`/v1/ecus/${encode(this.ecu)}/objects?${query}`);
        return told.objects.map((/** @type {any} */ one) => this.leaf(one.name, kindOf(one), one.description, one.unit));
    }

    /** @param {string} name @param {string} kind @param {string} description @param {string} unit @returns {Node} */
    leaf(name, kind, description, unit) {
        const parts = kind === "s" ? () => this.parts(name) : null;
        return this.node(null, name, parts, [unit && `[${unit}]`, description].filter(Boolean).join(" "), name, kind);
    }

    /** @param {string} name of a structure @returns {Promise<Entry[]>} */
    async parts(name) {
        const told = await getJson(`/v1/ecus/${encode(this.ecu)}/objects?parts&pattern=${encode(name)}`);
        return told.objects.filter((/** @type {any} */ one) => one.name.startsWith(`${name}.`) || one.name.startsWith(`${name}[`))
            .map((/** @type {any} */ one) => this.leaf(one.name, kindOf(one), one.description, one.unit));
    }

    search() {
        const query = this.input.value.trim();
        const kinds = this.kinds.value;
        this.isSearch = query !== "" || kinds !== "";
        this.rows = this.isSearch ? this.index.search(query, kinds) : this.roots;
        this.active = 0;
        this.tree.scrollTop = 0;
        setText(this.count, this.isSearch ? `${this.rows.length} of ${this.index.count}` : `${this.index.count} objects`);
        this.show(true);
    }

    /** @param {number} row @returns {Node} */
    entry(row) {
        const entry = this.rows[row];
        if (typeof entry !== "number") return entry;
        const line = this.index.at(entry);
        const node = this.leaf(line.name, line.kind, line.description, line.unit);
        node.level = this.placeLevel;
        if (line.kind === "s") this.rows[row] = node;
        return node;
    }

    /** @param {number} row @param {boolean} open */
    async toggle(row, open) {
        const node = this.entry(row);
        if (!node.load || node.open === open) return;
        if (!open) {
            let end = row + 1;
            while (end < this.rows.length && this.isBelow(end, node.level)) ++end;
            this.rows.splice(row + 1, end - row - 1);
            node.open = false;
            return this.show(true);
        }
        try {
            const children = await node.load();
            const at = this.rows.indexOf(node);
            if (at < 0 || node.open) return;
            children.forEach((child, place) => {
                if (typeof child === "number") return;
                Object.assign(child, { level: node.level + 1, parent: node, place: place + 1, size: children.length });
            });
            node.open = true;
            this.rows = this.rows.slice(0, at + 1).concat(children, this.rows.slice(at + 1));
            this.show(true);
        } catch (error) {
            say(reason(error), true);
        }
    }

    /** Rows that are places are found ones, or lie directly below a kind. */
    get placeLevel() {
        return this.isSearch ? 0 : 1;
    }

    /** @param {number} row @param {number} level */
    isBelow(row, level) {
        const entry = this.rows[row];
        return (typeof entry === "number" ? this.placeLevel : entry.level) > level;
    }

    /** @param {KeyboardEvent} event */
    onKey(event) {
        const page = Math.max(1, Math.floor(this.tree.clientHeight / ROW) - 1);
        const inTree = event.target === this.tree;
        /** @type {Record<string, () => void>} */
        const keys = {
            ArrowDown: () => this.move(this.active + 1), ArrowUp: () => this.move(this.active - 1),
            PageDown: () => this.move(this.active + page), PageUp: () => this.move(this.active - page),
            Enter: () => this.use(this.active, event.shiftKey),
        };
        if (inTree || this.input.value === "") {
            keys.ArrowRight = () => this.entry(this.active)?.open ? this.move(this.active + 1) : this.toggle(this.active, true);
            keys.ArrowLeft = () => this.left();
            keys.Home = () => this.move(0);
            keys.End = () => this.move(this.rows.length - 1);
        }
        if (event.key === "Escape" && this.input.value) keys.Escape = () => { this.input.value = ""; this.search(); };
        const deed = event.ctrlKey || event.altKey ? undefined : keys[event.key];
        if (!deed || this.rows.length === 0) return;
        event.preventDefault();
        deed();
    }

    left() {
        const node = this.entry(this.active);
        if (node.open) return this.toggle(this.active, false);
        for (let at = this.active - 1; at >= 0; --at) {
            const entry = this.rows[at];
            if (typeof entry !== "number" && entry.level < node.level) return this.move(at);
        }
        return undefined;
    }

    /** @param {number} row */
    move(row) {
        this.active = Math.min(Math.max(row, 0), this.rows.length - 1);
        const top = this.active * ROW;
        if (top < this.tree.scrollTop) this.tree.scrollTop = top;
        if (top + ROW > this.tree.scrollTop + this.tree.clientHeight) this.tree.scrollTop = top + ROW - this.tree.clientHeight;
        this.show();
    }

    /** @param {number} row @param {boolean} fresh into a new pane */
    use(row, fresh) {
        const node = this.entry(row);
        if (!node) return;
        if (node.name === null || node.kind === "s") this.toggle(row, !node.open);
        else this.actions.onUse(node.name, node.kind, fresh);
    }

    /** Makes the rows in sight. @param {boolean} [all] the rows are others than before */
    show(all = false) {
        if (all) this.inner.style.height = `${this.rows.length * ROW}px`;
        const first = Math.max(0, Math.floor(this.tree.scrollTop / ROW) - 3);
        const end = Math.min(this.rows.length, first + Math.ceil((this.tree.clientHeight || 600) / ROW) + 6);
        const elements = [];
        for (let row = first; row < end; ++row) elements.push(this.rowElement(row));
        this.inner.replaceChildren(...elements);
        for (const at of [this.input, this.tree]) {
            if (this.rows.length) at.setAttribute("aria-activedescendant", `row${this.active}`);
            else at.removeAttribute("aria-activedescendant");
        }
    }

    /** @param {number} row */
    rowElement(row) {
        const node = this.entry(row);
        const [sign, kind] = SIGNS[node.kind] ?? SIGNS[""];
        const element = make("div", {
            id: `row${row}`, class: row === this.active ? "row active" : "row", role: "treeitem", draggable: node.name !== null && node.kind !== "s" ? "true" : null,
            "aria-level": node.level + 1, "aria-selected": String(row === this.active), "aria-posinset": node.place || row + 1, "aria-setsize": node.size || this.rows.length,
            "aria-expanded": node.load ? String(node.open) : null, "aria-label": [kind, plain(node.label), plain(node.note)].filter(Boolean).join(", "),
            title: `${node.label}\n${node.note}`,
            onclick: (/** @type {MouseEvent} */ event) => {
                this.move(row);
                if (node.load) this.toggle(row, !node.open);
                else if (event.detail === 2) this.use(row, false);
            },
            ondragstart: (/** @type {DragEvent} */ event) => event.dataTransfer?.setData("text/plain", `${node.kind}\t${node.name}`),
        }, make("span", { class: "fold", text: node.load ? (node.open ? "▾" : "▸") : "" }), make("span", { class: "sign", text: sign }),
            make("span", { class: "label", text: node.label }), make("span", { class: "note", text: node.note }));
        element.style.top = `${row * ROW}px`;
        element.style.paddingLeft = `${4 + 12 * node.level}px`;
        if (node.name !== null && node.kind !== "s") {
            element.append(make("button", { type: "button", class: "small add", text: "+", tabindex: "-1", "aria-label": `show ${node.label}`,
                onclick: (/** @type {Event} */ event) => { event.stopPropagation(); this.use(row, false); } }));
        }
        return element;
    }
}
