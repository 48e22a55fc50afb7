// @ts-check
// Puts the parts of the page together: what one of them wants done is done by another only through here.

import { getJson, login, reason } from "./api.js";
import { Control } from "./control.js";
import { byId, make, say, setText } from "./dom.js";
import { Link } from "./link.js";
import { Plots } from "./plots.js";
import { LiveSource } from "./sources.js";
import { startTheme } from "./theme.js";
import { plain } from "./text.js";

const live = new LiveSource();
let ecu = "";
/** @type {Link} */
let link;
/** @type {Control} */
let control;
/** @type {Plots} */
let plots;

const wanted = () => plots.names;

/** @param {import("./frames.js").Frame} frame */
function onFrame(frame) {
    if (frame.kind === "window") {
        live.append(frame);
        if (plots.isLive) plots.request();
        return;
    }
    if (frame.kind !== "event") return;
    const { data } = frame;
    if (data.event === "signals") {
        live.setSignals(data);
        plots.rearrange();
    } else if (data.event === "state") {
        control.take(data);
    } else if (data.event === "missed") {
        control.miss(data.missed);
    }
}

async function start() {
    startTheme(() => plots?.request());
    try {
        await login();
        const told = await getJson("/v1");
        ecu = told.ecus[0]?.name ?? "";
        control = new Control({ ecu: () => ecu, wanted, onStarted: () => plots.follow(true) });
        plots = new Plots(live, { onSignals: () => { link.want(wanted()); control.remeasure(); }, onDrop: (text, pane) => plots.addSignals([text], pane) });
        plots.emptyText = "Search for a signal on the left and press Enter, or drag it here";
        link = new Link(ecu, onFrame, (open, why) => {
            byId("lost").hidden = open;
            setText(byId("lost"), open ? "" : `⚠ No connection to the server: ${plain(why)}. Trying again…`);
        });
        plots.addPane();
        link.want([]);
    } catch (error) {
        say(`This page cannot start: ${reason(error)}`, true);
    }
    Object.assign(globalThis, { cockpit: { plots, control, live, link } });
}

start();
