// @ts-check
// Texts of others cannot hide, turn round or become markup; numbers do not lose digits.

import { same, test } from "/test/check.js";
import { Columns } from "/page/strips.js";
import { svgOf } from "/page/svg.js";
import { escapeXml, formatBytes, formatNumber, formatTime, parseJson, plain } from "/page/text.js";

test("hidden characters are marked", () => {
    const rows = [["engine_speed °C ⌀ 速度 😀", "engine_speed °C ⌀ 速度 😀"], ["a\u202Eb", "a⟦202E⟧b"], ["a\u0000\u001b[31m\n", "a⟦0000⟧⟦001B⟧[31m⟦000A⟧"],
        ["x\u200By\u2066z", "x⟦200B⟧y⟦2066⟧z"], ["\uD800", "⟦D800⟧"], ["<b>&", "<b>&"]];
    for (const [text, expected] of rows) same(plain(text), expected);
    same([plain(null), plain(undefined), plain(5)], ["", "", "5"]);
    same(escapeXml(`<script>"&'\u202E`), "&lt;script&gt;&quot;&amp;&apos;⟦202E⟧");
});

test("an SVG of hostile names is well-formed, and has nothing that runs", async () => {
    const columns = new Columns();
    [[0, 0, 0, 0, 1], [5, 1, 9, 4, 0], [10, 2, 2, 2, 1]].forEach(([x, least, greatest, last, broken]) => columns.add(x, x, least, greatest, last, broken));
    const evil = `"><script>alert(1)</script>\u0000<!--`;
    const text = svgOf({ title: evil, from: 0, to: 10, width: 100, background: "#ffffff", text: "#000000", grid: "#cccccc", outage: "#ff0000",
        happenings: [{ from: 2, to: 3, kind: "outage", text: evil }], panes: [{ height: 100, sourceWidth: 10, traces: [{ tag: "1", name: evil, unit: evil, color: "#123456", second: true, steps: false, low: 0, high: 10, columns }] }] });
    same([/<script|<!--|\0/.test(text), text.includes("<title>&quot;&gt;&lt;script&gt;")], [false, true]);
    const line = /<path d="([^"]*)"[^>]*clip-path/.exec(text)?.[1] ?? "";
    same((line.match(/M/g) ?? []).length, 2, "one line before the gap, one behind it:");
    const image = new Image();
    image.src = `data:image/svg+xml,${encodeURIComponent(text)}`;
    await image.decode();
});

test("numbers", () => {
    const rows = /** @type {[number, string][]} */ ([[0.1 + 0.2, "0.3"], [4294967296, "4294967296"], [-1.5, "-1.5"], [1.23456789e-7, "1.23457e-7"], [NaN, "–"], [Infinity, "∞"], [-Infinity, "−∞"], [123456.789, "123457"]]);
    for (const [value, text] of rows) same(formatNumber(value), text);
    same([formatTime(1.25), formatTime(59.9999), formatTime(36000, 0), formatTime(-61.5, 1), formatTime(NaN)], ["1.250 s", "1:00.000", "10:00:00", "−1:01.5", "–"]);
    same([formatBytes(999), formatBytes(216000000)], ["999 B", "216 MB"]);
});

test("integers of 64 bits keep their digits", () => {
    same(parseJson('{"raw": 18446744073709551615, "physical": -9007199254740993, "small": 5, "float": 1.5e300}'),
        { raw: "18446744073709551615", physical: "-9007199254740993", small: 5, float: 1.5e300 });
});
