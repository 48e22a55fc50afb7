// @ts-check
// What is seen as an SVG file. Every text in it is escaped. No DOM.

import { ticks, tickText, timeStep, timeTickText, roundStep } from "./scales.js";
import { escapeXml } from "./text.js";

/**
 * @typedef {{tag: string, name: string, unit: string, color: string, second: boolean, steps: boolean, low: number, high: number,
 *            columns: import("./strips.js").Columns}} DrawnTrace
 * @typedef {{title: string, from: number, to: number, width: number, background: string, text: string, grid: string, outage: string,
 *            happenings: import("./sources.js").Happening[], panes: {height: number, sourceWidth: number, traces: DrawnTrace[]}[]}} Drawing
 */

const LEFT = 60;
const RIGHT = 180;
const number = (/** @type {number} */ value) => String(Math.round(value * 100) / 100);

/** @param {Drawing} drawing @returns {string} */
export function svgOf(drawing) {
    const total = drawing.panes.reduce((sum, pane) => sum + pane.height + 10, 0) + 60;
    const width = LEFT + drawing.width + RIGHT;
    const parts = [`<svg xmlns="http://www.w3.org/2000/svg" width="${width}" height="${total}" viewBox="0 0 ${width} ${total}" font-family="sans-serif" font-size="11">`,
        `<title>${escapeXml(drawing.title)}</title>`, `<rect width="100%" height="100%" fill="${drawing.background}"/>`,
        `<text x="${LEFT}" y="16" font-size="13" fill="${drawing.text}">${escapeXml(drawing.title)}</text>`];
    let top = 24;
    drawing.panes.forEach((pane, place) => {
        parts.push(...paneParts(drawing, pane, top, place));
        top += pane.height + 10;
    });
    const step = timeStep(drawing.to - drawing.from, drawing.width / 110);
    const isLong = Math.max(Math.abs(drawing.from), Math.abs(drawing.to)) >= 120;
    for (const tick of ticks(drawing.from, drawing.to, step)) {
        const x = LEFT + ((tick - drawing.from) / (drawing.to - drawing.from)) * drawing.width;
        parts.push(`<text x="${number(x)}" y="${top + 8}" text-anchor="middle" fill="${drawing.text}">${timeTickText(tick, step, isLong)}</text>`);
    }
    for (const one of drawing.happenings) {
        if (one.to < drawing.from || one.from > drawing.to) continue;
        const x = LEFT + ((Math.max(one.from, drawing.from) - drawing.from) / (drawing.to - drawing.from)) * drawing.width;
        const end = LEFT + ((Math.min(one.to, drawing.to) - drawing.from) / (drawing.to - drawing.from)) * drawing.width;
        const opacity = one.kind === "outage" || one.kind === "gap" ? 0.25 : 0.8;
        parts.push(`<rect x="${number(x)}" y="24" width="${number(Math.max(end - x, 1))}" height="${top - 34}" fill="${drawing.outage}" opacity="${opacity}"><title>${escapeXml(`${one.kind} ${one.text}`)}</title></rect>`,
            `<text x="${number(x)}" y="${top + 24}" fill="${drawing.outage}">${escapeXml(one.text.slice(0, 40))}</text>`);
    }
    parts.push("</svg>\n");
    return parts.join("\n");
}

/** @param {Drawing} drawing @param {Drawing["panes"][number]} pane @param {number} top @param {number} place */
function paneParts(drawing, pane, top, place) {
    const parts = [`<clipPath id="pane${place}"><rect x="${LEFT}" y="${top}" width="${drawing.width}" height="${pane.height}"/></clipPath>`,
        `<rect x="${LEFT}" y="${top}" width="${drawing.width}" height="${pane.height}" fill="none" stroke="${drawing.grid}"/>`];
    const first = pane.traces[0];
    if (first) {
        const step = roundStep(first.high - first.low, pane.height / 36);
        for (const tick of ticks(first.low, first.high, step)) {
            const y = top + pane.height * (1 - (tick - first.low) / (first.high - first.low || 1));
            parts.push(`<path d="M${LEFT} ${number(y)}h${drawing.width}" stroke="${drawing.grid}"/>`,
                `<text x="${LEFT - 4}" y="${number(y + 4)}" text-anchor="end" fill="${first.color}">${escapeXml(tickText(tick, step))}</text>`);
        }
    }
    pane.traces.forEach((trace, row) => {
        const dash = trace.second ? ' stroke-dasharray="6 4"' : "";
        parts.push(`<path d="${pathText(trace, drawing.width / pane.sourceWidth, top, pane.height)}" fill="none" stroke="${trace.color}" stroke-width="1"${dash} clip-path="url(#pane${place})"/>`,
            `<text x="${LEFT + drawing.width + 8}" y="${top + 14 + 14 * row}" fill="${trace.color}">${escapeXml(`${trace.tag} ${trace.name}${trace.unit ? ` [${trace.unit}]` : ""}`)}</text>`);
    });
    return parts;
}

/** @param {DrawnTrace} trace @param {number} scale @param {number} top @param {number} height */
function pathText({ columns, low, high, steps }, scale, top, height) {
    const toY = (/** @type {number} */ value) => number(top + height * (1 - (value - low) / (high - low || 1)));
    const parts = [];
    for (let i = 0; i < columns.count; ++i) {
        const x = number(LEFT + columns.x[i] * scale);
        const isBroken = i === 0 || columns.broken[i];
        if (!isBroken && steps) parts.push(`L${x} ${toY(columns.last[i - 1])}`);
        parts.push(`${isBroken ? "M" : "L"}${x} ${toY(columns.least[i])}`);
        if (columns.greatest[i] !== columns.least[i]) parts.push(`L${x} ${toY(columns.greatest[i])}L${x} ${toY(columns.last[i])}`);
    }
    return parts.join("");
}
