// @ts-check
// What happened, as the server tells it: states, warnings, who wrote what.

import { make, setText } from "./dom.js";

const MOST_LINES = 500;

export class Log {
    /** @param {HTMLElement} host */
    constructor(host) {
        this.list = make("ol", { tabindex: "0", "aria-label": "log entries" });
        this.last = make("span", { class: "soft" });
        this.box = make("details", {}, make("summary", {}, make("strong", { text: "Log " }), this.last), this.list);
        host.append(this.box);
    }

    /** @param {{time?: string, level?: string, text: string}} entry */
    add({ time, level = "info", text }) {
        const at = new Date(time ?? Date.now());
        const clock = `${at.toLocaleTimeString("sv-SE")}.${String(at.getMilliseconds()).padStart(3, "0")}`;
        const isBad = level === "warning" || level === "error";
        const atEnd = this.list.scrollTop + this.list.clientHeight > this.list.scrollHeight - 30;
        const line = make("li", { class: isBad ? "bad" : "", text: `${clock} ${isBad ? `⚠ ${level}: ` : ""}${text}` });
        this.list.append(line);
        while (this.list.childElementCount > MOST_LINES) this.list.firstElementChild?.remove();
        setText(this.last, line.textContent ?? "");
        if (atEnd) this.list.scrollTop = this.list.scrollHeight;
    }
}
