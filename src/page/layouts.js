// @ts-check
// The menu of layouts: opened, saved and removed on the server; kept by this page alone where the server cannot write.

import { ApiError, encode, getJson, reason, sendJson } from "./api.js";
import { button, make, say } from "./dom.js";
import { checkedLayout, isLayoutName } from "./layout.js";
import { plain } from "./text.js";

export class Layouts {
    /**
     * @param {HTMLElement} host
     * @param {{collect(): any, apply(layout: import("./layout.js").Layout): void}} actions
     */
    constructor(host, actions) {
        this.actions = actions;
        /** @type {Map<string, any>} those that could not be written */
        this.own = new Map();
        this.name = "";
        this.select = make("select", { "aria-label": "layout", title: "layouts", onchange: () => this.open(this.select.value) });
        host.append(this.select, button("Save…", () => this.save(), { "aria-label": "save the layout", title: "save the layout: panes, signals, parameters and time" }), button("✕", () => this.remove(), { "aria-label": "delete this layout", title: "delete this layout" }));
        this.show([]);
    }

    /** @param {boolean} openLast */
    async load(openLast) {
        try {
            const told = await getJson("/v1/layouts");
            this.show(told.layouts);
            if (openLast && told.last) await this.open(told.last);
        } catch (error) {
            if (!(error instanceof ApiError && error.status === 404)) say(`Layouts: ${reason(error)}`, true);
        }
    }

    /** @param {string[]} names */
    show(names) {
        const all = [...new Set([...names, ...this.own.keys()])].sort();
        this.select.replaceChildren(make("option", { value: "", text: "layout…" }), ...all.map((name) => make("option", { value: name, text: this.own.has(name) ? `${name} (this page only)` : name })));
        this.select.value = all.includes(this.name) ? this.name : "";
    }

    /** @param {string} name */
    async open(name) {
        if (!name) return;
        try {
            const layout = checkedLayout(this.own.get(name) ?? await getJson(`/v1/layouts/${encode(name)}`));
            this.name = name;
            this.select.value = name;
            this.actions.apply(layout);
        } catch (error) {
            say(`The layout ${plain(name)} cannot be opened: ${reason(error)}`, true);
        }
    }

    async save() {
        const name = window.prompt("Name of the layout (letters, digits, - and _)", this.name || "layout");
        if (name === null) return;
        if (!isLayoutName(name)) return say("A layout's name has letters, digits, - and _, 64 at most.", true);
        const layout = this.actions.collect();
        this.name = name;
        try {
            await sendJson("PUT", `/v1/layouts/${encode(name)}`, layout);
            this.own.delete(name);
            say(`Layout ${name} saved`);
        } catch (error) {
            this.own.set(name, layout);
            say(`The server did not keep the layout (${reason(error)}): it stays for as long as this page is open.`, true);
        }
        await this.load(false);
    }

    async remove() {
        const name = this.select.value;
        if (!name || !window.confirm(`Delete the layout ${name}?`)) return;
        try {
            if (!this.own.delete(name)) await sendJson("DELETE", `/v1/layouts/${encode(name)}`);
            this.name = "";
        } catch (error) {
            say(reason(error), true);
        }
        await this.load(false);
    }
}
