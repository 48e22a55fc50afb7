// @ts-check
// The time axis below the panes: times, and what happened: marks, writes, outages, each with a sign and a text.

import { make } from "./dom.js";
import { ticks, timeStep, timeTickText } from "./scales.js";
import { plain } from "./text.js";

const HEIGHT = 40;
const SIGNS = /** @type {Record<string, string>} */ ({ mark: "▼", write: "✎", outage: "▨", lost: "▨", overload: "!", gap: "▨", trigger: "◆", ecu: "◆", clock: "◷" });

export class Axis {
    constructor() {
        this.canvas = make("canvas", { role: "img", "aria-label": "Time axis" });
        this.context = /** @type {CanvasRenderingContext2D} */ (this.canvas.getContext("2d", { alpha: false }));
    }

    /**
     * @param {import("./view.js").TimeView} view
     * @param {number} width CSS pixels
     * @param {number} gutter
     * @param {import("./plot.js").Theme} theme
     * @param {import("./sources.js").Happening[]} happenings
     * @param {string} note what the times count from
     */
    draw(view, width, gutter, theme, happenings, note) {
        const ratio = window.devicePixelRatio || 1;
        const size = [Math.max(1, Math.round(width * ratio)), Math.round(HEIGHT * ratio)];
        if (this.canvas.width !== size[0] || this.canvas.height !== size[1]) [this.canvas.width, this.canvas.height] = size;
        this.canvas.style.width = `${width}px`;
        this.canvas.style.height = `${HEIGHT}px`;
        const { context } = this;
        context.setTransform(ratio, 0, 0, ratio, 0, 0);
        context.fillStyle = theme.background;
        context.fillRect(0, 0, width, HEIGHT);
        context.fillStyle = theme.text;
        context.font = "11px system-ui, sans-serif";
        context.textBaseline = "middle";
        context.textAlign = "center";
        const inner = width - gutter;
        const step = timeStep(view.span, Math.max(2, inner / 110));
        const isLong = Math.max(Math.abs(view.to), Math.abs(view.from)) >= 120;
        for (const tick of ticks(view.from, view.to, step)) {
            const x = gutter + ((tick - view.from) / view.span) * inner;
            context.fillRect(Math.round(x), 0, 1, 5);
            if (x > gutter + 12 && x < width - 24) context.fillText(timeTickText(tick, step, isLong), x, 12);
        }
        context.textAlign = "left";
        context.fillText(plain(note), 4, 12, gutter - 8);
        this.drawHappenings(view, gutter, inner, theme, happenings);
    }

    /**
     * @param {import("./view.js").TimeView} view
     * @param {number} gutter
     * @param {number} inner
     * @param {import("./plot.js").Theme} theme
     * @param {import("./sources.js").Happening[]} happenings
     */
    drawHappenings(view, gutter, inner, theme, happenings) {
        const { context } = this;
        let free = gutter;
        for (const one of happenings) {
            if (one.to < view.from || one.from > view.to) continue;
            const x = Math.max(gutter, gutter + ((one.from - view.from) / view.span) * inner);
            context.fillStyle = theme.outage;
            context.fillText(SIGNS[one.kind] ?? "•", x - 4, 30);
            if (x < free) continue;
            const text = plain(`${one.kind === "mark" ? "" : `${one.kind} `}${one.text}`).slice(0, 60);
            context.fillStyle = theme.text;
            context.fillText(text, x + 9, 30);
            free = x + 16 + context.measureText(text).width;
        }
    }
}
