// Draws the report of a sweep: for each phone the course of its run and the list of its calls; and,
// when a fault is chosen, its panel with the time lines. The address names what the panel shows:
// #p0 the first phone's run without a fault, #p0c12f3 the fault 3 of its call 12, all from 0.
"use strict";

const report = JSON.parse(document.getElementById("report").textContent);
const verdicts = Object.fromEntries(
    report.verdicts.map((verdict, rank) => [verdict.word, {rank, ...verdict}]));

// An element. The content are elements and texts.
function make(tag, attributes, ...content) {
    const element = document.createElement(tag);
    for (const [name, value] of Object.entries(attributes)) {
        element.setAttribute(name, value);
    }
    element.append(...content);
    return element;
}

const callText = call => `${call.number} ${call.function} ${call.path}`.trim();
const failsText = way => way.isPowerCut ? "the power fails before it" : "it fails";
const letterOf = way => way.violates ? "!" : verdicts[way.answer].letter;
const classOf = way => way.answer + (way.violates ? " wrong" : "");
const answerText = way => way.answer + (way.violates ? ", a violation" : "");

// The ways in which a call or the power fails there. Torn writes that leave the same are one way.
function waysOf(call, id) {
    const ways = [];
    call.left.forEach(([fault, label, isPowerCut, answer, violates, line, next, torn], place) => {
        const last = ways[ways.length - 1];
        if (last && torn !== null && last.torn !== null && last.answer === answer &&
            last.violates === violates) {
            last.label = last.first + " to " + torn;
            last.places.push(place);
        } else {
            ways.push({call, fault, label, isPowerCut, answer, violates, line, next, torn,
                       first: label, places: [place], id: `${id}f${place}`});
        }
    });
    return ways;
}

// The worst of the ways, as one bar of a call.
function bar(ways) {
    if (ways.length === 0) {
        return make("i", {});
    }
    const badness = way => (way.violates ? 100 : 0) + verdicts[way.answer].rank;
    const worst = ways.reduce((one, other) => badness(other) > badness(one) ? other : one);
    const text = `${callText(worst.call)}, ${failsText(worst)}: ${answerText(worst)}`;
    return make("a", {class: classOf(worst), href: "#" + worst.id, title: text,
                      "aria-label": text}, letterOf(worst));
}

function chips(ways) {
    return ways.flatMap(way => {
        const chip = make("a", {class: "way " + classOf(way), href: "#" + way.id,
                                title: answerText(way),
                                "aria-label": `${way.label}: ${answerText(way)}`}, way.label);
        if (letterOf(way)) {
            chip.prepend(make("b", {}, letterOf(way)), " ");
        }
        return [chip, " "];
    });
}

// The calls as columns, in groups of ten.
function course(calls, ways, id) {
    const groups = make("div", {class: "course"});
    calls.forEach((call, i) => {
        if (i % 10 === 0) {
            groups.append(make("span", {class: "ten"}, make("small", {}, call.number)));
        }
        const mark = call.asks_for_change ? "D" : call.syncs ? "S" : "";
        groups.lastChild.append(
            make("span", {class: "call", id: `${id}c${i}`}, make("u", {}, mark),
                 bar(ways[i].filter(way => !way.isPowerCut)),
                 bar(ways[i].filter(way => way.isPowerCut))));
    });
    return groups;
}

// Calls in a row that leave the same share a row of the list, if they are alike or on no path, such
// as those of the clock.
function sharesRow(calls, ways, one, other) {
    const [a, b] = [calls[one], calls[other]];
    const shown = i => JSON.stringify(ways[i].map(
        way => [way.label, way.answer, way.isPowerCut, way.violates]));
    return a.path === b.path &&
        (a.path === "" || (a.function === b.function && a.result === b.result)) &&
        shown(one) === shown(other);
}

// The list of calls; `rows` gets the row of each call.
function list(calls, ways, rows) {
    const body = make("tbody", {});
    for (let first = 0, end = 0; first < calls.length; first = end) {
        for (end = first + 1; end < calls.length && sharesRow(calls, ways, first, end);) {
            end++;
        }
        const same = calls.slice(first, end), call = same[0];
        const kinds = [...new Set(same.map(one => `${one.function} ${one.path}`.trim()))];
        const number = call.number + (end > first + 1 ? " to " + calls[end - 1].number : "");
        const cell = (head, ...content) => make("td", {"data-head": head}, ...content);
        const row = make(
            "tr", {}, make("th", {scope: "row"}, number), cell("call", kinds.join(", ")),
            cell("result", kinds.length > 1 ? "" : call.result),
            cell("it fails", ...chips(ways[first].filter(way => !way.isPowerCut))),
            cell("the power fails before it", ...chips(ways[first].filter(way => way.isPowerCut))));
        body.append(row);
        rows.push(...same.map(() => row));
    }
    const heads = ["", "call", "result", "it fails", "the power fails before it"];
    return make("table", {}, make("thead", {}, make("tr", {}, ...heads.map(
        head => make("th", {scope: "col"}, head)))), body);
}

// The lines by their numbers; equal ones in a row once.
function lines(numbers) {
    const shown = [];
    for (let first = 0, end = 0; first < numbers.length; first = end) {
        for (end = first + 1; numbers[end] === numbers[first];) {
            end++;
        }
        const line = report.lines[numbers[first]], blank = line.indexOf(" ");
        const source = line.slice(0, blank);
        shown.push(make("span", {class: source},
                        `${source.padEnd(8)}| ${line.slice(blank + 1)}\n`));
        if (end > first + 1) {
            shown.push(make("i", {}, `the same ${end - first} times\n`));
        }
    }
    return shown;
}

function timeLine(title, phone, number) {
    const [common, ...rest] = report.time_lines[number];
    const all = report.time_lines[phone.time_line].slice(1, 1 + common).concat(rest);
    const folded = common > 5 ? common - 3 : 0; // some lines are left for the context
    const shown = make("div", {class: "lines"}, ...lines(all.slice(folded)));
    if (folded > 0) {
        shown.prepend(make("details", {}, make("summary", {},
            `${folded} lines as in the run without a fault`), ...lines(all.slice(0, folded))));
    }
    return make("div", {}, make("h3", {}, title), shown);
}

const quoted = text => `'${text.replaceAll("'", "'\\''")}'`;

// The title and the content of the panel of a fault.
function ofFault(phone, way, ways) {
    return [`Call ${callText(way.call)}: ${failsText(way)}, ${way.label}`, [
        make("p", {}, make("span", {class: "way " + classOf(way)},
                           make("b", {}, letterOf(way)), " ", answerText(way)),
             " ", verdicts[way.answer].sentence, "."),
        make("p", {}, "Both runs by hand: ",
             make("code", {}, `${phone.rehearse} --fault ${quoted(way.fault)} --then ''`)),
        make("p", {}, "All ways at this call: ", ...chips(ways)),
        make("div", {class: "both"}, timeLine("The run with the fault", phone, way.line),
             timeLine("The next run, without a fault", phone, way.next))]];
}

function ofBase(phone) {
    return [`${phone.phone}: the run without a fault`, [
        make("p", {}, "This run by hand: ", make("code", {}, phone.rehearse)),
        timeLine(`${phone.answer}, in ${phone.calls} calls`, phone, phone.time_line)]];
}

const drawn = report.phones.map((phone, p) => {
    const ways = phone.course.map((call, c) => waysOf(call, `p${p}c${c}`)), rows = [];
    document.getElementById(`phone-${p}`).append(
        make("h3", {}, "The course of the run"),
        make("p", {}, "A column for each call, in order. Upper bar: the worst that the phone is " +
             "left with when the call fails. Lower bar: when the power fails before it. D: the " +
             "device is asked to change; S: a file is synced. A bar opens its fault. ",
             make("a", {href: `#calls-${p}`}, "Past the bars to the list of calls")),
        course(phone.course, ways, `p${p}`),
        make("h3", {id: `calls-${p}`, tabindex: "-1"}, "Calls"),
        list(phone.course, ways, rows));
    return {phone, ways, rows};
});

const panel = document.getElementById("panel");
let opener = null; // the link outside of the panel that was clicked last

function show() {
    const [, p, c, place] = location.hash.match(/^#p(\d+)(?:c(\d+)f(\d+))?$/) || [];
    const {phone, ways, rows} = drawn[p] || {};
    const ofCall = ways && ways[c] || [];
    const way = ofCall.find(one => one.places.includes(Number(place)));
    for (const old of document.querySelectorAll(".here")) {
        old.classList.remove("here");
    }
    panel.hidden = !way && !(phone && c === undefined);
    document.documentElement.classList.toggle("open", !panel.hidden);
    if (panel.hidden) {
        if (location.hash === "#closed" && opener) {
            opener.focus({preventScroll: true});
        }
        return;
    }
    const [title, content] = way ? ofFault(phone, way, ofCall) : ofBase(phone);
    panel.querySelector("h2").textContent = title;
    panel.querySelector("div").replaceChildren(...content);
    panel.querySelector("h2").focus({preventScroll: true});
    panel.scrollTop = 0;
    if (way) {
        rows[c].classList.add("here");
        document.getElementById(`p${p}c${c}`).classList.add("here");
        const clicked = opener && opener.hash === location.hash ? opener : rows[c];
        clicked.scrollIntoView({block: "nearest"}); // not behind the panel
    }
}

addEventListener("hashchange", show);
addEventListener("click", event => {
    opener = panel.contains(event.target) ? opener : event.target.closest("a");
});
addEventListener("keydown", event => {
    if (event.key === "Escape" && !panel.hidden) {
        location.hash = "closed";
    }
});
show();
