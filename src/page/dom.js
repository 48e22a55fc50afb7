// @ts-check
// Making elements. Texts only ever become text nodes, after `plain` when they are of others.

import { plain } from "./text.js";

/**
 * An element with attributes, listeners (`onclick`), and children; texts are shown with hidden characters marked.
 * @template {keyof HTMLElementTagNameMap} T
 * @param {T} tag
 * @param {Record<string, any>} [facts] `class`, `text`, attributes; those that are null or false are left out
 * @param {...(Node | string | null | false | undefined)} children
 * @returns {HTMLElementTagNameMap[T]}
 */
export function make(tag, facts = {}, ...children) {
    const element = document.createElement(tag);
    for (const [name, value] of Object.entries(facts)) {
        if (value === null || value === undefined || value === false) continue;
        if (name === "text") element.textContent = plain(value);
        else if (name.startsWith("on")) element.addEventListener(name.slice(2), value);
        else if (name === "value") /** @type {any} */ (element).value = value;
        else element.setAttribute(name, value === true ? "" : plain(value));
    }
    for (const child of children) if (child) element.append(typeof child === "string" ? plain(child) : child);
    return element;
}

/**
 * @param {string} id
 * @returns {any}
 */
export function byId(id) {
    return document.getElementById(id);
}

/**
 * Sets a text only when it is another one: cheap, and no news for screen readers.
 * @param {Element} element
 * @param {string} text
 */
export function setText(element, text) {
    if (element.textContent !== text) element.textContent = text;
}

/**
 * A button with a text; `name` is what screen readers say when the text is only a sign.
 * @param {string} text
 * @param {(event: MouseEvent) => void} onclick
 * @param {Record<string, any>} [facts]
 */
export function button(text, onclick, facts = {}) {
    return make("button", { type: "button", text, onclick, ...facts });
}

/**
 * Offers bytes or an address of this server as a file.
 * @param {Blob | string} what
 * @param {string} name
 */
export function download(what, name) {
    const address = typeof what === "string" ? what : URL.createObjectURL(what);
    const link = make("a", { href: address, download: name });
    document.body.append(link);
    link.click();
    link.remove();
    if (typeof what !== "string") setTimeout(() => URL.revokeObjectURL(address), 10000);
}

/** @param {KeyboardEvent | Event} event */
export function inTextField(event) {
    const at = /** @type {HTMLElement} */ (event.target);
    return at instanceof HTMLInputElement ? !["checkbox", "radio", "button", "range"].includes(at.type)
        : at instanceof HTMLTextAreaElement || at instanceof HTMLSelectElement || at.isContentEditable;
}

/** Says a state to screen readers, and shows it for a while. @param {string} text @param {boolean} [isError] */
export function say(text, isError = false) {
    const place = byId(isError ? "alert" : "status");
    if (!place) return;
    place.textContent = plain(text);
    place.classList.add("shown");
    clearTimeout(timers.get(place));
    timers.set(place, setTimeout(() => place.classList.remove("shown"), isError ? 12000 : 5000));
}

/** @type {Map<Element, any>} */
const timers = new Map();
