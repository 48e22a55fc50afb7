// @ts-check
// Light and dark: as the system has it, or as chosen. The canvases take their colours from here.

const LIGHT = {
    background: "#ffffff", text: "#1c2430", grid: "#dfe3e8", faint: "#9aa3ad", outage: "#a03a00", cursor: "#1c2430",
    palette: ["#0b62c4", "#b3261e", "#1b7a3d", "#8a4b00", "#6b3fa0", "#00707c", "#a0206e", "#4d5a00"],
};
const DARK = {
    background: "#10161d", text: "#e6ebf0", grid: "#2a333d", faint: "#5d6975", outage: "#ffab7a", cursor: "#ffffff",
    palette: ["#6cb2ff", "#ff8a80", "#69d58c", "#ffb454", "#c9a6ff", "#4dd4e0", "#ff8fcb", "#c9d64f"],
};
const KEY = "xcplumo.theme";
const media = window.matchMedia("(prefers-color-scheme: dark)");

/** @type {"auto" | "light" | "dark"} */
let choice = "auto";

/** @param {string} key @param {string | null} [value] what to keep; left out: only read */
export function kept(key, value) {
    try {
        if (value !== undefined && value !== null) localStorage.setItem(key, value);
        return localStorage.getItem(key);
    } catch {
        return null;  // Storage is switched off: it is kept as long as the page.
    }
}

export function isDark() {
    return choice === "dark" || (choice === "auto" && media.matches);
}

/** @returns {import("./plot.js").Theme} */
export function themeNow() {
    return isDark() ? DARK : LIGHT;
}

export function themeChoice() {
    return choice;
}

/** @param {string} wish @param {() => void} changed */
export function setTheme(wish, changed) {
    choice = wish === "dark" || wish === "light" ? wish : "auto";
    kept(KEY, choice);
    document.documentElement.dataset.theme = isDark() ? "dark" : "light";
    changed();
}

/** @param {() => void} changed */
export function startTheme(changed) {
    media.addEventListener("change", () => setTheme(choice, changed));
    setTheme(kept(KEY) ?? "auto", changed);
}
