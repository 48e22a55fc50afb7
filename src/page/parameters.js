// @ts-check
// The parameters that are worked on: their values, what the ECU made of each write, undo, and what differs from the reference.

import { encode, getJson, reason, request, sendJson, writeValues } from "./api.js";
import { button, byId, download, inTextField, make, say, setText } from "./dom.js";
import { boundsOf, placeOn } from "./grid.js";
import { History } from "./history.js";
import { Picture, valueBetween } from "./picture.js";
import { Scalar } from "./scalar.js";
import { dig, Table } from "./table.js";
import { formatNumber, plain } from "./text.js";
import { themeNow } from "./theme.js";

const TRAIL = 60;
const RELOAD_MS = 150;

/**
 * @typedef {{name: string, info: any, value: any, reference: any, scalar: Scalar | null, table: Table | null, picture: Picture | null,
 *            trail: {x: number, y: number}[], inputs: string[], card: HTMLElement, flag: HTMLElement, back: HTMLButtonElement, point: HTMLElement}} Item
 */

export class Parameters {
    /** @param {{ecu(): string, canWrite(): boolean, hasFiles(): boolean, onInputs(): void, valueOf(name: string): number, factsOf(name: string): import("./sources.js").Facts | null}} page */
    constructor(page) {
        this.page = page;
        /** @type {Map<string, Item>} */
        this.items = new Map();
        this.history = new History();
        this.host = byId("parameters");
        this.undoButton = button("↶ Undo", () => this.again("undo"), { title: "Ctrl+Z" });
        this.redoButton = button("↷ Redo", () => this.again("redo"), { title: "Ctrl+Y" });
        this.summary = make("span", { class: "soft", role: "status" });
        this.file = make("input", { type: "file", hidden: true, "aria-label": "parameter file", onchange: () => this.openFile() });
        this.list = make("div", { class: "cards" });
        this.empty = make("p", { class: "hint", text: "Parameters that you choose on the left come here: Enter, or drag." });
        this.report = make("div", { class: "report", hidden: true });
        this.files = make("div", { class: "group" }, button("Take as reference", () => this.takeReference(), { title: "what is changed from now on is marked" }),
            button("Back to reference", () => this.backToReference(), { title: "writes the reference's values, as one step" }), this.summary);
        this.wholeFiles = make("div", { class: "group" }, button("Save all…", () => this.save(), { title: "all parameters of the ECU as a file, as `snapshot` writes it" }),
            button("Compare, apply…", () => this.file.click(), { title: "a parameter file: what differs, and apply it" }), this.file);
        this.wholeFiles.hidden = !page.hasFiles();
        this.host.append(make("div", { class: "head" }, make("h2", { text: "Parameters" }), make("div", { class: "group" }, this.undoButton, this.redoButton)),
            this.files, this.wholeFiles, this.report, this.empty, this.list);
        this.host.addEventListener("dragover", (/** @type {DragEvent} */ event) => event.preventDefault());
        this.host.addEventListener("drop", (/** @type {DragEvent} */ event) => {
            event.preventDefault();
            const [kind, name] = (event.dataTransfer?.getData("text/plain") ?? "").split("\t");
            if (name && kind !== "m") this.add(name);
        });
        document.addEventListener("keydown", (event) => {
            if (!event.ctrlKey || inTextField(event) || event.defaultPrevented) return;
            const key = event.key.toLowerCase();
            if (key !== "z" && key !== "y") return;
            event.preventDefault();
            this.again(key === "y" || event.shiftKey ? "redo" : "undo");
        });
        this.arrange();
    }

    get names() {
        return [...this.items.keys()];
    }

    /** Measurements that the axes are over. */
    get inputs() {
        return [...new Set([...this.items.values()].flatMap((item) => item.inputs))];
    }

    get base() {
        return `/v1/ecus/${encode(this.page.ecu())}`;
    }

    /** @param {string} name @param {boolean} [focus] */
    async add(name, focus = true) {
        const old = this.items.get(name);
        if (old) return this.focus(old);
        try {
            const [described, read] = await Promise.all([getJson(`${this.base}/objects/${encode(name)}`), getJson(`${this.base}/values/${encode(name)}`)]);
            const item = this.makeItem(name, described.object, read.value);
            this.items.set(name, item);
            this.list.append(item.card);
            this.show(item, read.value);
            this.arrange();
            if (focus) this.focus(item);
            if (item.inputs.length) this.page.onInputs();
        } catch (error) {
            say(`${name}: ${reason(error)}`, true);
        }
    }

    /** @param {Item} item */
    focus(item) {
        item.card.scrollIntoView({ block: "nearest" });
        (item.scalar?.field ?? item.table?.grid.querySelector("td"))?.focus();
    }

    /** @param {string} name @param {any} info @param {any} value @returns {Item} */
    makeItem(name, info, value) {
        const isWritable = this.page.canWrite() && info.writable !== false;
        const onWrite = (/** @type {string} */ label, /** @type {import("./table.js").Wish[]} */ wishes) => this.write(label, wishes);
        const isTable = Array.isArray(value.physical);
        const flag = make("span", { class: "flag" });
        const back = button("↺", () => this.backToReference([name]), { class: "small", "aria-label": `${name}: back to the reference`, title: "back to the reference" });
        const remove = button("✕", () => this.remove(name), { class: "small", "aria-label": `put ${name} away`, title: "put away" });
        const why = isWritable ? "" : this.page.canWrite() ? info.notWritable ?? "read-only in the A2L" : "this server is read-only";
        const card = make("div", { class: "card", role: "group", "aria-label": name },
            make("div", { class: "title" }, make("strong", { text: name, title: info.description ?? "" }), flag, make("span", { class: "soft", text: why }), back, remove),
            make("div", { class: "soft about", text: info.description ?? "" }));
        const item = /** @type {Item} */ ({ name, info, value, reference: value, scalar: null, table: null, picture: null, trail: [], inputs: [], card, flag, back, point: make("div", { class: "soft" }) });
        if (!isTable) {
            item.scalar = new Scalar(name, info, { onWrite, isWritable });
            card.append(item.scalar.element);
            return item;
        }
        item.table = new Table(name, { onWrite, isWritable, onSelect: () => this.drawPicture(item) });
        if (value.axes?.length) {
            item.picture = new Picture();
            const box = make("div", { class: "picturebox" }, item.picture.canvas, item.point);
            card.append(box);
            new ResizeObserver(() => this.drawPicture(item)).observe(box);
            item.inputs = value.axes.slice(0, 2).map((/** @type {any} */ axis) => axis.inputQuantity).filter((/** @type {string} */ one) => one && one !== "NO_INPUT_QUANTITY");
        }
        card.append(item.table.element);
        return item;
    }

    /** @param {string} name */
    remove(name) {
        const item = this.items.get(name);
        if (!item) return;
        item.card.remove();
        this.items.delete(name);
        this.arrange();
        if (item.inputs.length) this.page.onInputs();
    }

    arrange() {
        this.empty.hidden = this.items.size > 0;
        this.files.hidden = this.items.size === 0;
        this.host.classList.toggle("tables", [...this.items.values()].some((item) => item.table) || !this.report.hidden);
        this.host.classList.toggle("empty", this.items.size === 0 && this.report.hidden);
        this.tell();
    }

    /** @param {Item} item @param {any} value */
    show(item, value) {
        item.value = value;
        (item.scalar ?? item.table)?.show(value, item.reference);
        item.picture?.forget();
        this.drawPicture(item);
        const changes = (item.scalar ?? item.table)?.changes ?? 0;
        const was = item.scalar ? ` (was ${plain(item.reference.text)})` : "";
        setText(item.flag, changes ? `• changed${item.table ? ` ${changes}` : ""}${was}` : "");
        item.back.hidden = changes === 0;
        item.card.classList.toggle("changed", changes > 0);
        this.tell();
    }

    tell() {
        let count = 0;
        for (const item of this.items.values()) if ((item.scalar ?? item.table)?.changes) ++count;
        setText(this.summary, count ? `${count} of ${this.items.size} changed` : "nothing changed");
        const [undo, redo] = [this.history.done.at(-1), this.history.undone.at(-1)];
        this.undoButton.disabled = !undo;
        this.redoButton.disabled = !redo;
        this.undoButton.title = undo ? `Ctrl+Z: ${plain(undo.label)}` : "nothing to undo";
        this.redoButton.title = redo ? `Ctrl+Y: ${plain(redo.label)}` : "nothing to redo";
    }

    /** @param {string} element NAME or NAME[1][2] @returns {{item: Item | undefined, value: any}} */
    find(element) {
        const whole = this.items.get(element);
        if (whole) return { item: whole, value: this.writable(whole.value) };
        const found = /^(.*?)((?:\[\d+\])+)$/.exec(element);
        for (let name = found?.[1], rest = found?.[2] ?? ""; name !== undefined;) {
            const item = this.items.get(name);
            if (item) return { item, value: dig(item.value.physical, [...rest.matchAll(/\[(\d+)\]/g)].map((one) => Number(one[1]))) };
            const next = /^(\[\d+\])(.*)$/.exec(rest);
            if (!next || !next[2]) break;
            name += next[1];
            rest = next[2];
        }
        return { item: undefined, value: undefined };
    }

    /** What would be typed to get this value again: a verbal text, else the number with all its digits. @param {any} value */
    writable(value) {
        return Array.isArray(value.physical) || typeof value.physical === "number" && !/[^\d\s.,eE+-]/.test(String(value.text)) ? value.physical : value.text;
    }

    /** @param {string} label @param {import("./table.js").Wish[]} wishes @param {boolean} [keep] as a step that can be undone */
    async write(label, wishes, keep = true) {
        const before = new Map(wishes.map((wish) => [wish.name, this.find(wish.name).value]));
        let results;
        try {
            results = await writeValues(this.page.ecu(), wishes);
        } catch (error) {
            say(`Not written: ${reason(error)}`, true);
            await this.reload(new Set(wishes.map((wish) => this.find(wish.name).item)));
            return false;
        }
        const items = new Set(/** @type {(Item | undefined)[]} */ ([]));
        let refused = 0;
        /** @type {import("./history.js").Change[]} */
        const changes = [];
        for (const one of results) {
            const { item } = this.find(one.name);
            items.add(item);
            for (const dependent of one.dependents ?? []) items.add(this.items.get(dependent.name));
            if (one.error) ++refused;
            else changes.push({ name: one.name, before: before.get(one.name), after: this.writable(one.value) });
            if (item) this.note(item, one);
        }
        if (keep) this.history.add(label, changes);
        await this.reload(items);
        if (refused && wishes.length > 1) say(`${refused} of ${wishes.length} were refused: the cells with ✕ say why.`, true);
        return refused === 0;
    }

    /** @param {Item} item @param {any} result of a write */
    note(item, result) {
        const held = result.held?.text !== undefined ? ` – the ECU holds ${result.held.text}` : "";
        /** @type {import("./table.js").Note | null} */
        const note = result.error ? { kind: "refused", text: [`${result.error.message}${held}`, result.error.hint].filter(Boolean).join(" – ") }
            : result.deviation ? { kind: "rounded", text: String(result.deviation) } : null;
        if (item.scalar) item.scalar.tell(note);
        else if (note) item.table?.notes.set(result.name, note);
        else item.table?.notes.delete(result.name);
    }

    /** Reads these again. @param {Iterable<Item | undefined>} items */
    async reload(items) {
        const list = [...items].filter((item) => item !== undefined);
        if (list.length === 0) return;
        try {
            const told = await sendJson("POST", `${this.base}/values/read`, { names: list.map((item) => item.name) });
            told.values.forEach((/** @type {any} */ one, /** @type {number} */ place) => {
                if (one.value) this.show(list[place], one.value);
                else this.note(list[place], one);
            });
        } catch (error) {
            say(`The values cannot be read: ${reason(error)}`, true);
        }
    }

    reloadAll() {
        return this.reload(this.items.values());
    }

    /** Somebody wrote, maybe this page. @param {{name: string}[]} entries */
    onWrites(entries) {
        for (const { name } of entries) {
            const { item } = this.find(name);
            if (item) this.stale.add(item);
        }
        clearTimeout(this.reloadTimer);
        this.reloadTimer = setTimeout(() => {
            const items = [...this.stale];
            this.stale.clear();
            this.reload(items);
        }, RELOAD_MS);
    }
    /** @type {Set<Item>} */
    stale = new Set();

    /** @param {"undo" | "redo"} way */
    async again(way) {
        const plan = this.history.plan(way);
        if (!plan) return say(`Nothing to ${way}.`);
        if (await this.write(plan.step.label, plan.writes, false)) {
            this.history.settle(way, plan.step);
            say(`${way === "undo" ? "Undone" : "Done again"}: ${plain(plan.step.label)}`);
        }
        this.tell();
        return undefined;
    }

    takeReference() {
        for (const item of this.items.values()) {
            item.reference = item.value;
            this.show(item, item.value);
        }
    }

    /** @param {string[]} [names] */
    backToReference(names = this.names) {
        /** @type {import("./table.js").Wish[]} */
        const wishes = [];
        for (const name of names) {
            const item = /** @type {Item} */ (this.items.get(name));
            if (item.scalar?.changes) wishes.push({ name, value: this.writable(item.reference) });
            if (item.table?.changes) this.differing(name, item.reference.physical, item.value.physical, wishes);
        }
        if (wishes.length) this.write(`back to the reference: ${wishes.length} value(s)`, wishes);
    }

    /** @param {string} name @param {any} reference @param {any} value @param {import("./table.js").Wish[]} wishes */
    differing(name, reference, value, wishes) {
        if (Array.isArray(value)) value.forEach((one, i) => this.differing(`${name}[${i}]`, reference?.[i], one, wishes));
        else if (value !== reference && reference !== undefined) wishes.push({ name, value: reference });
    }

    /** The operating points move. */
    follow() {
        for (const item of this.items.values()) {
            if (!item.picture || item.inputs.length === 0 || item.card.offsetParent === null) continue;
            const axes = item.value.axes;
            const at = axes.slice(0, 2).map((/** @type {any} */ axis) => this.page.valueOf(axis.inputQuantity));
            const point = { x: at[0], y: axes.length > 1 ? at[1] : 0 };
            if (point.x !== point.x || point.y !== point.y) {
                item.table?.setNearest(null);
                continue;
            }
            item.trail.push(point);
            if (item.trail.length > TRAIL) item.trail.shift();
            this.drawPicture(item);
        }
    }

    /** @param {Item} item */
    drawPicture(item) {
        const { table, picture } = item;
        if (!table || !picture || !table.value) return;
        const surface = { x: table.points(0), y: table.rows > 1 ? table.points(1) : [0], value: (/** @type {number} */ column, /** @type {number} */ row) => table.number({ column, row }),
            selected: boundsOf(table.selection), trail: item.trail, theme: themeNow() };
        picture.draw(surface);
        const now = item.trail.at(-1);
        picture.canvas.setAttribute("aria-label", `Picture of ${item.name}`);
        if (!now) return;
        const x = placeOn(surface.x, now.x);
        const y = placeOn(surface.y, now.y);
        table.setNearest({ column: Math.round(x), row: Math.round(y) });
        const axes = item.value.axes.slice(0, 2).map((/** @type {any} */ axis, /** @type {number} */ i) => `${axis.inputQuantity} ${formatNumber(i ? now.y : now.x, 5)} ${axis.unit}`);
        setText(item.point, plain(`◎ ${axes.join(", ")} → ${formatNumber(valueBetween(surface, x, y), 5)} ${item.value.unit}`));
    }

    async save() {
        try {
            const answer = await request("POST", `${this.base}/parameters/snapshot`, {});
            download(await answer.blob(), `${this.page.ecu()}-parameters.json`);
        } catch (error) {
            say(reason(error), true);
        }
    }

    async openFile() {
        const file = this.file.files?.[0];
        if (!file) return;
        this.file.value = "";
        try {
            const text = await file.text();
            const told = await sendJson("POST", `${this.base}/parameters/compare`, text);
            this.showDifferences(file.name, text, told);
        } catch (error) {
            say(`${file.name}: ${reason(error)}`, true);
        }
    }

    /** @param {string} name @param {string} text @param {any} told as `diff` tells it */
    showDifferences(name, text, told) {
        const rows = told.differences.slice(0, 500).map((/** @type {any} */ one) => {
            const first = one.numbers?.[0];
            const more = one.numbers?.length > 1 ? `, and ${one.numbers.length - 1} more` : "";
            return make("tr", {}, make("th", { scope: "row", text: one.name }), make("td", { text: one.difference }),
                make("td", { text: first ? `${first.place ?? ""} file ${first.a}, ECU ${first.b}${more}` : one.why ?? "" }));
        });
        const close = () => { this.report.hidden = true; this.arrange(); };
        const apply = async () => {
            try {
                const done = await sendJson("POST", `${this.base}/parameters/apply`, text);
                say(`${plain(name)}: ${done.written ?? 0} parameter(s) written`);
                close();
                this.reloadAll();
            } catch (error) {
                say(`${plain(name)} was not applied: ${reason(error)}`, true);
            }
        };
        this.report.replaceChildren(make("h2", { text: `${name} and the ECU: ${told.different ?? 0} differ, ${told.equal ?? 0} equal` }),
            make("table", { class: "list" }, make("tbody", {}, ...rows)),
            make("div", { class: "group" }, told.different > 0 && this.page.canWrite() ? button("Apply: write the file's values", apply, { class: "primary" }) : null, button("Close", close)));
        this.report.hidden = false;
        this.arrange();
    }
}
