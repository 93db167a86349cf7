// @parcel/watcher on a tree, as peers.py asks for it:
//
//   node parcel.cjs MODULES snapshot TREE FILE
//   node parcel.cjs MODULES since TREE FILE
//   node parcel.cjs MODULES storm FOLDER PROGRAM FILES
//
// Prints one JSON object.

const { execFile } = require("node:child_process");
const { readdirSync } = require("node:fs");
const path = require("node:path");
const { promisify } = require("node:util");

const [modules, mode, tree, ...rest] = process.argv.slice(2);
const watcher = require(path.join(modules, "@parcel/watcher"));
// Else it hands over to watchman where that is installed.
const options = { backend: "inotify" };
const seconds = () => Number(process.hrtime.bigint()) / 1e9;

function keptFiles(folder) {
    return readdirSync(folder, { recursive: true })
        .filter((name) => path.basename(name).startsWith("Kept "))
        .map((name) => path.join(folder, name));
}

async function storm(program, files) {
    const known = new Set();
    let last = 0;
    const subscription = await watcher.subscribe(tree, (error, events) => {
        last = seconds();
        for (const event of events ?? []) known.add(event.path);
    }, options);
    const before = process.cpuUsage();
    const { stdout } = await promisify(execFile)(program, ["run", tree, files]);
    const end = seconds();
    const values = Object.fromEntries(stdout.trim().split("\n").map((line) => line.split("\t")));
    // There is no barrier to ask for: it has seen all where nothing came for a second.
    do await new Promise((done) => setTimeout(done, 200));
    while (seconds() - Math.max(last, end) < 1);
    const used = process.cpuUsage(before);
    await subscription.unsubscribe();
    return {
        seenSeconds: Math.max(0, last - end),
        stormSeconds: Number(values.seconds),
        cpuAnEvent: (used.user + used.system) / Number(values.events),
        lost: keptFiles(tree).filter((file) => !known.has(file)).length,
        residentMiB: process.resourceUsage().maxRSS / 1024,
    };
}

async function main() {
    if (mode === "storm") return storm(...rest);
    const start = seconds();
    if (mode === "snapshot") {
        await watcher.writeSnapshot(tree, rest[0], options);
        return { seconds: seconds() - start };
    }
    const events = await watcher.getEventsSince(tree, rest[0], options);
    return { seconds: seconds() - start, events: events.length };
}

main().then((result) => console.log(JSON.stringify(result)));
