// Loads scripts of the page into this process: they are classic scripts, whose namespaces become globals.
"use strict";
const fs = require("fs");
const path = require("path");
const vm = require("vm");

const pageFolder = path.join(__dirname, "../../Components/WebDebugger");

function load(...names) {
    for (const name of names) {
        const file = path.join(pageFolder, name);
        vm.runInThisContext(fs.readFileSync(file, "utf8"), { filename: file });
    }
}

module.exports = { load, pageFolder };
