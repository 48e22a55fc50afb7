// @ts-check
// A single parameter: a field with limits and raw steps, or a list of the texts that it can have.

import { button, make, setText } from "./dom.js";
import { decimalsOf } from "./scales.js";
import { formatNumber, plain } from "./text.js";

/**
 * What one raw step changes; NaN when it is not the same everywhere.
 * @param {any} info as `describe` tells it
 */
export function stepOf(info) {
    if (typeof info.rawStep === "number" && info.rawStep > 0) return info.rawStep;
    const type = info.recordLayout?.type ?? info.type ?? "";
    const isFloat = /FLOAT/.test(type);
    const conversion = info.conversion;
    if (isFloat) {
        const decimals = /\.(\d+)/.exec(info.format ?? "");
        return decimals ? 10 ** -Number(decimals[1]) : NaN;
    }
    if (!conversion || conversion.type === "IDENTICAL") return 1;
    return conversion.type === "LINEAR" ? Math.abs(conversion.coefficients[0]) : NaN;
}

export class Scalar {
    /**
     * @param {string} name
     * @param {any} info
     * @param {{onWrite(label: string, wishes: {name: string, value: number | string}[]): void, isWritable: boolean}} actions
     */
    constructor(name, info, actions) {
        this.name = name;
        this.actions = actions;
        this.step = stepOf(info);
        this.limits = info.limits ?? [];
        /** @type {any} */
        this.value = null;
        const texts = /** @type {{text: string}[]} */ (info.conversion?.texts ?? []);
        const id = `value of ${name}`;
        const disabled = !actions.isWritable;
        if (texts.length && texts.length <= 500) {
            const options = [...new Set(texts.map((one) => one.text))].map((text) => {
                const option = make("option", { text });
                option.value = text;
                return option;
            });
            this.field = make("select", { "aria-label": id, disabled, onchange: () => this.send(this.field.value) }, ...options);
        } else {
            this.field = make("input", { type: "text", "aria-label": id, disabled, size: info.type === "ASCII" ? "22" : "12", spellcheck: "false",
                onkeydown: (/** @type {KeyboardEvent} */ event) => this.onKey(event), onblur: () => this.field.classList.toggle("typed", this.field.value !== this.shown) });
            this.field.addEventListener("input", () => this.field.classList.toggle("typed", this.field.value !== this.shown));
        }
        const canStep = this.step > 0 && actions.isWritable && this.field instanceof HTMLInputElement;
        const title = `one raw step, ${formatNumber(this.step)} (arrow keys; Shift: ten)`;
        this.shown = "";
        this.unit = make("span", { class: "soft" });
        const [least, greatest] = this.limits;
        const limits = texts.length || least === undefined ? "" : `limits ${formatNumber(least)} … ${formatNumber(greatest)}`;
        this.note = make("div", { class: "note", role: "status" });
        this.element = make("div", { class: "scalar" }, make("div", { class: "group" },
            canStep && button("−", () => this.stepBy(-1), { "aria-label": `${name}: one step less`, title }), this.field,
            canStep && button("+", () => this.stepBy(1), { "aria-label": `${name}: one step more`, title }), this.unit,
            make("span", { class: "soft limits", text: limits })), this.note);
    }

    /** @param {any} value @param {any} reference */
    show(value, reference) {
        this.value = value;
        setText(this.unit, plain(value.unit ?? ""));
        const { field } = this;
        const isList = field instanceof HTMLSelectElement;
        // All digits that the ECU holds, so that what is typed comes back as it was.
        const text = value.text === undefined ? "" : isList || typeof value.physical !== "number" ? String(value.text) : numberText(value, this.step);
        if (isList && ![...field.options].some((option) => option.value === text)) {
            const option = make("option", { text });
            option.value = text;
            field.append(option);
        }
        if (document.activeElement !== this.field || this.field.value === this.shown || isList) this.field.value = text;
        this.shown = text;
        this.field.classList.toggle("typed", this.field.value !== text);
        this.changes = reference && reference.physical !== value.physical ? 1 : 0;
    }

    /** @param {import("./table.js").Note | null} note */
    tell(note) {
        setText(this.note, note ? `${note.kind === "refused" ? "✕" : "≈"} ${plain(note.text)}` : "");
        this.note.className = `note ${note?.kind ?? ""}`;
        this.field.setAttribute("aria-invalid", String(note?.kind === "refused"));
    }

    /** @param {number | string} value */
    send(value) {
        this.shown = this.field.value;
        this.actions.onWrite(`${this.name} = ${value}`, [{ name: this.name, value }]);
    }

    /** @param {number} steps */
    stepBy(steps) {
        const now = Number(this.value?.physical);
        if (now !== now || typeof this.value?.physical === "string") return;
        const [least, greatest] = this.limits;
        let next = Number((now + steps * this.step).toPrecision(12));
        if (least !== undefined) next = Math.min(Math.max(next, least), greatest);
        if (next !== now) this.send(next);
    }

    /** @param {KeyboardEvent} event */
    onKey(event) {
        const far = event.shiftKey ? 10 : 1;
        if (event.key === "Enter" && !event.ctrlKey) this.send(this.field.value.trim());
        else if (event.key === "Escape") {
            this.field.value = this.shown;
            this.field.classList.remove("typed");
        } else if (event.key === "ArrowUp" && this.step > 0) this.stepBy(far);
        else if (event.key === "ArrowDown" && this.step > 0) this.stepBy(-far);
        else return;
        event.preventDefault();
    }
}

/** @param {any} value @param {number} step */
function numberText(value, step) {
    const full = String(value.physical);
    if (!(step > 0) || full.length <= 10) return full.includes(".") || full.includes("e") || !String(value.text).includes(".") ? full : String(value.text);
    const rounded = value.physical.toFixed(Math.min(12, decimalsOf(step) + 2));
    return Math.abs(Number(rounded) - value.physical) < step / 100 ? String(Number(rounded)) : full;
}
