// @ts-check
// A curve, map, block or axis as a table that is edited by keys and mouse. It asks for writes, and shows what came of them.

import { button, make, say, setText } from "./dom.js";
import { boundsOf, cellsOf, interpolated, moved, operation, parseCells } from "./grid.js";
import { formatNumber, plain } from "./text.js";

/**
 * @typedef {import("./grid.js").Cell} Cell
 * @typedef {{name: string, value: number | string}} Wish
 * @typedef {{kind: "refused" | "rounded", text: string}} Note
 */

/** @param {any} list nested arrays @param {number[]} path */
export function dig(list, path) {
    return path.reduce((one, place) => (Array.isArray(one) ? one[place] : undefined), list);
}

export class Table {
    /**
     * @param {string} name
     * @param {{onWrite(label: string, wishes: Wish[]): void, onSelect(): void, isWritable: boolean}} actions
     */
    constructor(name, actions) {
        this.name = name;
        this.actions = actions;
        /** @type {any} */
        this.value = null;
        /** @type {any} */
        this.reference = null;
        /** @type {Map<string, Note>} */
        this.notes = new Map();
        this.slice = /** @type {number[]} */ ([]);
        /** @type {import("./grid.js").Selection} */
        this.selection = { anchor: { column: 0, row: 0 }, focus: { column: 0, row: 0 } };
        /** @type {Cell | null} */
        this.nearest = null;
        /** @type {HTMLTableCellElement[][]} by row and column */
        this.cells = [];
        this.shape = "";
        this.grid = make("table", { class: "grid", role: "grid", "aria-label": name, "aria-readonly": String(!actions.isWritable), "aria-multiselectable": "true" });
        this.grid.addEventListener("keydown", (event) => this.onKey(event));
        this.grid.addEventListener("copy", (event) => this.onCopy(event));
        this.grid.addEventListener("paste", (event) => this.onPaste(event));
        this.entry = make("input", { type: "text", size: "9", "aria-label": `${name}: value for the selected cells`, placeholder: "12  +3  *1.1  /2", title: "a value, +3 or -=3, *1.1, /2, +5%",
            onkeydown: (/** @type {KeyboardEvent} */ event) => this.onEntryKey(event) });
        this.about = make("span", { class: "soft", role: "status" });
        const tools = [this.entry, button("Set", () => this.applyEntry(), { title: "Enter" }), button("Interpolate", () => this.interpolate(), { title: "between the corners of the selection (i)" })];
        this.bar = make("div", { class: "group tablebar" }, ...(actions.isWritable ? tools : []), this.about);
        this.element = make("div", { class: "tablebox" }, make("div", { class: "gridbox" }, this.grid), this.bar);
    }

    get dimensions() {
        return /** @type {number[]} */ (this.value?.dimensions ?? []);
    }
    get columns() {
        return this.dimensions[0] ?? 0;
    }
    get rows() {
        return this.dimensions[1] ?? 1;
    }

    /** @param {Cell} cell @returns {number[]} */
    path({ column, row }) {
        return this.dimensions.map((_size, place) => (place === 0 ? column : place === 1 ? row : this.slice[place - 2] ?? 0));
    }
    /** @param {Cell} cell */
    elementName(cell) {
        return this.name + this.path(cell).map((place) => `[${place}]`).join("");
    }
    /** @param {Cell} cell */
    number(cell) {
        const value = dig(this.value?.physical, this.path(cell));
        return value === null || value === undefined ? NaN : Number(value);
    }
    /** @param {number} place 0 for x @returns {number[]} */
    points(place) {
        const axis = this.value?.axes?.[place];
        const size = this.dimensions[place] ?? 1;
        return axis?.physical?.length === size ? axis.physical.map(Number) : Array.from({ length: size }, (_none, i) => i);
    }

    /** @param {any} value as the server tells it @param {any} reference to mark what is changed */
    show(value, reference) {
        this.value = value;
        this.reference = reference;
        const shape = JSON.stringify([value.dimensions, value.axes?.map((/** @type {any} */ axis) => axis.text)]);
        if (shape !== this.shape) this.build(shape);
        this.fill();
    }

    /** @param {string} shape */
    build(shape) {
        this.shape = shape;
        const axes = this.value.axes ?? [];
        const isMap = this.rows > 1;
        const corner = axes.slice(0, isMap ? 2 : 1).map((/** @type {any} */ axis, /** @type {number} */ i) => `${i ? "↓ " : "→ "}${axis.inputQuantity || axis.name} ${axis.unit && `[${axis.unit}]`}`).join("\n");
        const head = make("tr", {}, make("th", { class: "corner", text: corner, title: corner }));
        const texts = (/** @type {number} */ place, /** @type {number} */ i) => axes[place]?.text?.[i] ?? String(i);
        for (let column = 0; column < this.columns; ++column) head.append(make("th", { scope: "col", role: "columnheader", text: texts(0, column) }));
        this.cells = [];
        const body = make("tbody");
        for (let row = 0; row < this.rows; ++row) {
            const line = make("tr", {}, make("th", { scope: "row", role: "rowheader", text: isMap ? texts(1, row) : this.value.unit || "value" }));
            this.cells.push([]);
            for (let column = 0; column < this.columns; ++column) {
                const cell = make("td", { role: "gridcell", tabindex: "-1" });
                cell.addEventListener("pointerdown", (event) => this.onPointer(event, { column, row }));
                cell.addEventListener("pointerenter", (event) => { if (event.buttons === 1 && this.dragging) this.select({ anchor: this.selection.anchor, focus: { column, row } }); });
                cell.addEventListener("dblclick", () => this.type(""));
                this.cells[row].push(cell);
                line.append(cell);
            }
            body.append(line);
        }
        this.grid.replaceChildren(make("thead", {}, head), body);
        this.grid.setAttribute("aria-rowcount", String(this.rows + 1));
        this.buildSlices(axes);
    }

    /** Further dimensions are chosen, not shown. @param {any[]} axes */
    buildSlices(axes) {
        for (const old of this.bar.querySelectorAll("select")) old.remove();
        this.dimensions.slice(2).forEach((size, place) => {
            this.slice[place] ??= 0;
            if (size < 2) return;
            const axis = axes[place + 2];
            this.bar.append(make("select", { "aria-label": axis?.inputQuantity || `dimension ${place + 3}`, onchange: (/** @type {Event} */ event) => {
                this.slice[place] = Number(/** @type {HTMLSelectElement} */ (event.target).value);
                this.fill();
                this.actions.onSelect();
            } }, ...Array.from({ length: size }, (_none, i) => make("option", { value: String(i), text: `${axis?.inputQuantity || axis?.name || "layer"} ${axis?.text?.[i] ?? i}` }))));
        });
    }

    fill() {
        const { left, right, top, bottom } = boundsOf(this.selection);
        let count = 0;
        this.cells.forEach((line, row) => line.forEach((element, column) => {
            const path = this.path({ column, row });
            const name = this.elementName({ column, row });
            const text = plain(dig(this.value.text, path) ?? "–");
            const before = dig(this.reference?.physical, path);
            const isChanged = before !== undefined && before !== dig(this.value.physical, path);
            const note = this.notes.get(name);
            if (isChanged) ++count;
            const isSelected = column >= left && column <= right && row >= top && row <= bottom;
            const isFocus = column === this.selection.focus.column && row === this.selection.focus.row;
            const isNearest = this.nearest?.column === column && this.nearest.row === row;
            setText(element, `${note ? (note.kind === "refused" ? "✕" : "≈") : ""}${text}${isChanged ? "•" : ""}`);
            element.className = [isChanged && "changed", isSelected && "selected", isFocus && "focus", isNearest && "op", note?.kind].filter(Boolean).join(" ");
            element.title = [note?.text, isChanged && `was ${dig(this.reference.text, path)}`, isNearest && "operating point"].filter(Boolean).map(plain).join("\n");
            element.tabIndex = isFocus ? 0 : -1;
            element.setAttribute("aria-selected", String(isSelected));
        }));
        this.changes = count;
        this.tellAbout();
    }

    tellAbout() {
        const cells = cellsOf(this.selection);
        const note = this.notes.get(this.elementName(this.selection.focus));
        const numbers = cells.map((cell) => this.number(cell));
        const about = cells.length > 1 ? `${cells.length} cells, ${formatNumber(Math.min(...numbers))} … ${formatNumber(Math.max(...numbers))}` : "";
        setText(this.about, plain(note ? note.text : about));
        this.about.classList.toggle("refused", note?.kind === "refused");
    }

    /** @param {Cell | null} cell nearest to the operating point */
    setNearest(cell) {
        if (cell?.column === this.nearest?.column && cell?.row === this.nearest?.row) return;
        const mark = (/** @type {Cell | null} */ at, /** @type {boolean} */ on) => at && this.cells[at.row]?.[at.column]?.classList.toggle("op", on);
        mark(this.nearest, false);
        mark(cell, true);
        this.nearest = cell;
    }

    /** @param {import("./grid.js").Selection} selection @param {boolean} [focus] */
    select(selection, focus = true) {
        this.selection = selection;
        this.fill();
        if (focus) this.cells[selection.focus.row]?.[selection.focus.column]?.focus();
        this.actions.onSelect();
    }

    /** @param {PointerEvent} event @param {Cell} cell */
    onPointer(event, cell) {
        if (event.button !== 0) return;
        this.dragging = true;
        window.addEventListener("pointerup", () => { this.dragging = false; }, { once: true });
        /** @type {Element} */ (event.target).releasePointerCapture?.(event.pointerId);
        event.preventDefault();
        this.select({ anchor: event.shiftKey ? this.selection.anchor : cell, focus: cell });
    }

    /** @param {KeyboardEvent} event */
    onKey(event) {
        if (event.target instanceof HTMLInputElement) return;
        const next = moved(this.selection, event, this.columns, this.rows);
        const plainKey = !event.ctrlKey && !event.altKey && !event.metaKey;
        if (next) this.select(next);
        else if (event.key === " " && this.nearest) this.select({ anchor: this.nearest, focus: this.nearest });
        else if (!this.actions.isWritable || !plainKey) return;
        else if (event.key === "Enter" || event.key === "F2") this.type("");
        else if (event.key === "i") this.interpolate();
        else if (/^[-0-9.,+*/=]$/.test(event.key)) this.type(event.key);
        else if (event.key === "PageUp" || event.key === "PageDown") return;
        else return;
        event.preventDefault();
        event.stopPropagation();
    }

    /** Goes on typing in the field for the selection. @param {string} begin */
    type(begin) {
        if (!this.actions.isWritable) return;
        this.entry.value = begin || String(dig(this.value.physical, this.path(this.selection.focus)) ?? "");
        this.entry.focus();
        if (begin === "") this.entry.select();
        else this.entry.setSelectionRange(begin.length, begin.length);
    }

    /** @param {KeyboardEvent} event */
    onEntryKey(event) {
        if (event.key === "Enter" && !event.ctrlKey) this.applyEntry();
        else if (event.key !== "Escape") return;
        if (event.key === "Escape") this.entry.value = "";
        event.preventDefault();
        event.stopPropagation();
        this.cells[this.selection.focus.row]?.[this.selection.focus.column]?.focus();
    }

    applyEntry() {
        const text = this.entry.value.trim();
        if (!text) return;
        const change = operation(text);
        const cells = cellsOf(this.selection);
        // What is no number may be a text of the conversion; the program judges it.
        if (!change && !/^[\p{L}_]/u.test(text)) return say(`"${text}" is no number and no change such as +3, *1.1 or +5%`, true);
        this.write(`${this.name}: ${text} in ${cells.length} cell(s)`, cells.map((cell) => ({ name: this.elementName(cell), value: change ? change(this.number(cell)) : text })));
        this.entry.value = "";
    }

    interpolate() {
        const results = interpolated(this.selection, (cell) => this.number(cell), this.points(0), this.rows > 1 ? this.points(1) : [0]);
        const cells = cellsOf(this.selection).filter(({ column, row }) => results.get(`${column},${row}`) !== this.number({ column, row }));
        if (cells.length === 0) return say("Select more than two cells: those between the corners are interpolated.");
        return this.write(`${this.name}: interpolate ${cells.length} cell(s)`, cells.map((cell) => ({ name: this.elementName(cell), value: Number(results.get(`${cell.column},${cell.row}`)) })));
    }

    /** @param {string} label @param {Wish[]} wishes */
    write(label, wishes) {
        for (const wish of wishes) this.notes.delete(wish.name);
        this.actions.onWrite(label, wishes);
    }

    /** @param {ClipboardEvent} event */
    onCopy(event) {
        const { left, right, top, bottom } = boundsOf(this.selection);
        const lines = [];
        for (let row = top; row <= bottom; ++row) {
            lines.push(Array.from({ length: right - left + 1 }, (_none, i) => String(dig(this.value.physical, this.path({ column: left + i, row })))).join("\t"));
        }
        event.clipboardData?.setData("text/plain", lines.join("\n"));
        event.preventDefault();
    }

    /** @param {ClipboardEvent} event */
    onPaste(event) {
        if (!this.actions.isWritable) return;
        event.preventDefault();
        const lines = parseCells(event.clipboardData?.getData("text/plain") ?? "");
        const { left, top } = boundsOf(this.selection);
        /** @type {Wish[]} */
        const wishes = [];
        for (const [i, line] of lines.entries()) {
            for (const [j, text] of line.entries()) {
                const number = operation(text)?.(NaN);
                if (number === undefined || number !== number) return void say(`Nothing was pasted: "${text}" is no number.`, true);
                if (left + j >= this.columns || top + i >= this.rows) return void say("Nothing was pasted: it does not fit into the table from here.", true);
                wishes.push({ name: this.elementName({ column: left + j, row: top + i }), value: number });
            }
        }
        this.write(`${this.name}: paste ${wishes.length} cell(s)`, wishes);
    }
}
