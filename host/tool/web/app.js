// The page of `fontrix serve`: three views over the JSON API under /api/ (host/README.md).
// Every face is drawn by faceCard(); a face the machine does not have (a row whose
// "installed" is false) gets its "not installed" note there, so answers about such faces
// need no other change here.
"use strict";

const CLASSES = [
  ["blackletter", "Blackletter"], ["decorative", "Decorative"], ["handmade", "Handmade"],
  ["monospace", "Monospace"], ["sans-serif", "Sans serif"], ["script", "Script"],
  ["serif", "Serif"], ["slab-serif", "Slab serif"],
];
const LARGEST_UPLOAD = 16 << 20;  // as the server allows
const PAGE_SIZE = 24;

const $ = (id) => document.getElementById(id);

function element(tag, attributes = {}, ...children) {
  const e = document.createElement(tag);
  for (const [k, v] of Object.entries(attributes)) {
    if (k === "text") e.textContent = v;
    else if (v !== false && v !== null && v !== undefined) e.setAttribute(k, v === true ? "" : v);
  }
  for (const c of children) if (c) e.append(c);
  return e;
}

// The API's answer as an object; a refusal or failure throws an Error with the server's sentence.
async function api(path, options = {}) {
  let response;
  try {
    response = await fetch(path, options);
  } catch (e) {
    throw new Error("the Fontrix server cannot be reached (is fontrix serve still running?)");
  }
  let body = null;
  try {
    body = await response.json();
  } catch (e) {
    body = null;
  }
  if (!response.ok) throw new Error(body && body.error ? body.error : "the server answered " + response.status);
  return body;
}

// The API's answer, or null once its failure is shown in the element `messageId`.
async function answerOrSay(path, messageId) {
  try {
    return await api(path);
  } catch (e) {
    $(messageId).textContent = e.message;
    return null;
  }
}

function sampleText() {
  return $("sample").value.trim() || "Handgloves";
}

function specimenUrl(name, size = 48) {
  return "/api/specimen?" + new URLSearchParams({ name, text: sampleText(), size });
}

// fontconfig's weight and slant numbers as a designer names them.
function weightName(w) {
  const names = [[0, "thin"], [40, "extra light"], [50, "light"], [75, "book"], [80, "regular"],
    [100, "medium"], [180, "semibold"], [200, "bold"], [205, "extra bold"], [210, "black"]];
  let best = names[0];
  for (const n of names) if (Math.abs(n[0] - w) < Math.abs(best[0] - w)) best = n;
  return best[1];
}
function slantName(s) {
  return s >= 110 ? "oblique" : s >= 100 ? "italic" : "upright";
}

function classNames(labels) {
  return (labels || []).map((l) => {
    const short = l.replace(/^fs_/, "").replace(/_/g, "-");
    const found = CLASSES.find((c) => c[0] === short);
    return found ? found[1] : short;
  });
}

// One face: its name, what is known of it, its specimen in the user's text (or, for a face the
// machine does not have, where to get it) and a link to its alternatives.
function faceCard(row, { extra = [], before = null, heading = "h3" } = {}) {
  const title = row.family ? row.family + " " + row.style : row.name;
  const li = element("li", { "data-name": row.name, "data-classes": (row.classes || []).join(" ") });
  li.append(element(heading, { text: title }));
  const meta = [row.name];
  if (row.weight !== undefined) meta.push(weightName(row.weight) + ", " + slantName(row.slant));
  meta.push(...extra);
  const metaLine = element("p", { class: "meta", text: meta.join(" · ") });
  for (const c of classNames(row.classes)) metaLine.append(" ", element("span", { class: "tag", text: c }));
  li.append(metaLine);
  if (before) li.append(before);
  if (row.installed === false) {
    // A known open face: where to get it and the installed fonts most like it.
    const where = row.where || (row.source ? "open font, " + row.source + (row.licence ? " (" + row.licence + ")" : "") +
      (row.closest_installed && row.closest_installed.length ? "; closest installed: " + row.closest_installed.join(", ") : "") : "");
    li.append(element("p", { class: "not-installed", text: "not installed" + (where ? ": " + where : "") }));
  } else {
    li.append(element("img", {
      class: "specimen", src: specimenUrl(row.name), alt: title + ": " + sampleText(),
      "data-specimen": row.name,
    }));
  }
  li.append(element("p", {}, element("a", {
    href: "#alternatives?" + new URLSearchParams({ name: row.name }),
    text: "Alternatives to " + title,
  })));
  return li;
}

// The user's text changed: every specimen on the page is drawn again in it.
function redrawSpecimens() {
  for (const img of document.querySelectorAll("img[data-specimen]")) {
    img.src = specimenUrl(img.dataset.specimen, img.dataset.size || 48);
    img.alt = img.alt.replace(/: .*$/, ": " + sampleText());
  }
}

// ---- progress: the module takes in the fonts on a first run

let ready = false;
async function watchProgress() {
  try {
    const p = await api("/api/progress");
    ready = p.ready;
    $("progress").hidden = p.ready;
    if (!p.ready) {
      $("progress-text").textContent = "Taking in the installed fonts: " + p.done + " of " + p.total +
        ". Answers come once they are all in.";
      $("progress-bar").max = Math.max(p.total, 1);
      $("progress-bar").value = p.done;
    }
  } catch (e) {
    $("progress").hidden = false;
    $("progress-text").textContent = e.message;
  }
  if (!ready) setTimeout(watchProgress, 500);
  else if (!$("view-browse").hidden && !$("browse-results").children.length) browse(0);
}

// ---- views

function route() {
  const [view, query] = (location.hash.slice(1) || "identify").split("?");
  const known = ["identify", "alternatives", "browse"].includes(view) ? view : "identify";
  for (const name of ["identify", "alternatives", "browse"]) $("view-" + name).hidden = name !== known;
  for (const a of document.querySelectorAll("nav a[data-view]")) {
    if (a.dataset.view === known) a.setAttribute("aria-current", "page");
    else a.removeAttribute("aria-current");
  }
  document.title = "Fontrix: " + { identify: "Identify", alternatives: "Alternatives", browse: "Browse by style" }[known];
  const params = new URLSearchParams(query || "");
  if (known === "alternatives" && params.get("name")) {
    $("font-name").value = params.get("name");
    findAlternatives();
  }
  if (known === "browse" && !$("browse-results").children.length) browse(0);
  $(known + "-title").focus();
}

// ---- identify

let pictureUrl = null;

function identifyMessage(text) {
  $("identify-message").textContent = text;
}

async function identify(file) {
  identifyMessage("");
  $("candidates").replaceChildren();
  $("sure").hidden = true;
  if (!file) return;
  if (file.type && !/^image\/(png|jpeg)$/.test(file.type)) {
    identifyMessage("That is not a PNG or JPEG picture: choose a picture of text.");
    return;
  }
  if (file.size > LARGEST_UPLOAD) {
    identifyMessage("The picture is too large: at most " + (LARGEST_UPLOAD >> 20) + " MB may be sent.");
    return;
  }
  if (pictureUrl) URL.revokeObjectURL(pictureUrl);
  pictureUrl = URL.createObjectURL(file);
  const picture = $("picture");
  picture.src = pictureUrl;
  $("picture-box").hidden = false;
  $("identify-busy").hidden = false;
  let answer;
  try {
    answer = await api("/api/recognize?limit=10", { method: "POST", body: file });
  } catch (e) {
    identifyMessage(e.message === "no text found"
      ? "No text found in the picture: give a picture with a line of text." : e.message);
    return;
  } finally {
    $("identify-busy").hidden = true;
  }
  await picture.decode().catch(() => null);
  if (answer.sure === false) {
    $("sure").textContent = "not sure: the font may not be installed, or the picture is too small or unclear";
    $("sure").hidden = false;
  }
  if (!answer.results.length) {
    identifyMessage("No installed font was recognised in this picture.");
    return;
  }
  const line = answer.lines.reduce((a, b) => ((b.bottom - b.top) > (a.bottom - a.top) ? b : a), answer.lines[0]);
  for (const row of answer.results) {
    const extra = [];
    if (row.confidence !== undefined) extra.push(Math.round(row.confidence * 100) + " % likely");
    $("candidates").append(faceCard(row, { extra, before: line ? lineRead(picture, line) : null }));
  }
}

// The line recognition read, cut from the user's picture.
function lineRead(picture, line) {
  // The line's box is in the picture's own pixels, as sent.
  const width = Math.max(1, line.right - line.left), height = Math.max(1, line.bottom - line.top);
  const canvas = element("canvas", { class: "line-read", width, height, role: "img", "aria-label": "The line read from your picture" });
  canvas.getContext("2d").drawImage(picture, line.left, line.top, width, height, 0, 0, width, height);
  return canvas;
}

function setUpIdentify() {
  const drop = $("drop");
  $("file").addEventListener("change", (e) => identify(e.target.files[0]));
  drop.addEventListener("dragover", (e) => { e.preventDefault(); drop.classList.add("over"); });
  drop.addEventListener("dragleave", () => drop.classList.remove("over"));
  drop.addEventListener("drop", (e) => {
    e.preventDefault();
    drop.classList.remove("over");
    identify(e.dataTransfer.files[0]);
  });
  document.addEventListener("paste", (e) => {
    const item = [...(e.clipboardData || { items: [] }).items].find((i) => i.kind === "file");
    if (!item) return;
    e.preventDefault();
    if (location.hash.slice(1).split("?")[0] !== "identify") location.hash = "#identify";
    identify(item.getAsFile());
  });
}

// ---- alternatives

let suggestTimer = null;
function suggest() {
  clearTimeout(suggestTimer);
  const typed = $("font-name").value.trim();
  if (typed.length < 2) return;
  suggestTimer = setTimeout(async () => {
    try {
      const answer = await api("/api/fonts?" + new URLSearchParams({ q: typed, limit: 12 }));
      $("font-names").replaceChildren(...answer.fonts.map((f) =>
        element("option", { value: f.name, label: f.family + " " + f.style })));
    } catch (e) {
      // No suggestions while the fonts are taken in, or for a pattern fontconfig refuses.
    }
  }, 150);
}

async function findAlternatives() {
  const name = $("font-name").value.trim();
  $("similar-message").textContent = "";
  $("similar-results").replaceChildren();
  $("query-face").replaceChildren();
  compared.clear();
  showCompare();
  if (!name) return;
  const params = new URLSearchParams({ name, limit: 24 });
  if ($("other-families").checked) params.set("other_families", "1");
  if ($("similar-class").value) params.set("class", $("similar-class").value);
  const answer = await answerOrSay("/api/similar?" + params, "similar-message");
  if (!answer) return;
  const query = { name: answer.query, family: answer.query_family, style: answer.query_style, installed: answer.query_installed };
  const queryList = element("ul", { class: "cards", "aria-label": "The font asked about" });
  queryList.append(faceCard(query, { extra: answer.notes }));
  $("query-face").append(queryList);
  if (!answer.results.length) $("similar-message").textContent = answer.message;
  for (const row of answer.results) {
    // An installed look-alike of a well-known family asked about has no score when it was itself
    // the question.
    const card = faceCard(row, { extra: [row.score !== undefined ? "likeness " + row.score.toFixed(2) : row.look_alike] });
    const box = element("input", { type: "checkbox", id: "compare-" + row.name });
    box.addEventListener("change", () => {
      if (box.checked && compared.size >= 3) {
        box.checked = false;
        $("similar-message").textContent = "At most three faces are compared at once.";
        return;
      }
      if (box.checked) compared.set(row.name, row); else compared.delete(row.name);
      showCompare();
    });
    card.append(element("p", {}, box, " ", element("label", { for: "compare-" + row.name, text: "Compare" })));
    $("similar-results").append(card);
  }
  $("compare-help").hidden = answer.results.length < 2;
}

const compared = new Map();
function showCompare() {
  const faces = [...compared.values()];
  $("compare").hidden = faces.length < 2;
  $("compare-faces").classList.toggle("overlaid", $("overlay").checked);
  $("compare-faces").replaceChildren(...faces.map((row) => {
    const title = row.family + " " + row.style;
    return element("figure", {},
      element("img", { class: "specimen", src: specimenUrl(row.name, 72), "data-specimen": row.name, "data-size": 72, alt: title + ": " + sampleText() }),
      element("figcaption", { text: title }));
  }));
  if ($("overlay").checked && faces.length > 1) {
    const colours = ["black", "blue", "red"];
    $("compare-faces").append(element("p", {
      class: "compare-key",
      text: faces.map((f, i) => f.family + " " + f.style + " in " + colours[i]).join(", "),
    }));
  }
}

function setUpAlternatives() {
  for (const [value, label] of CLASSES) $("similar-class").append(element("option", { value, text: label }));
  $("font-name").addEventListener("input", suggest);
  $("similar-form").addEventListener("submit", (e) => {
    e.preventDefault();
    const name = $("font-name").value.trim();
    const hash = "#alternatives?" + new URLSearchParams({ name });
    if (location.hash !== hash) location.hash = hash; else findAlternatives();
  });
  $("overlay").addEventListener("change", showCompare);
}

// ---- browse by style

let browseOffset = 0;
async function browse(offset) {
  const params = new URLSearchParams({ offset, limit: PAGE_SIZE });
  for (const [value] of CLASSES) {
    const how = $("class-" + value).value;
    if (how) params.append(how, value);
  }
  $("browse-message").textContent = "";
  const answer = await answerOrSay("/api/classes?" + params, "browse-message");
  if (!answer) return;
  browseOffset = answer.offset;
  $("browse-results").replaceChildren(...answer.fonts.map((row) => faceCard(row)));
  const pages = Math.max(1, Math.ceil(answer.total / PAGE_SIZE));
  const page = Math.floor(answer.offset / PAGE_SIZE) + 1;
  $("browse-count").textContent = answer.total + (answer.total === 1 ? " font" : " fonts");
  if (!answer.total) $("browse-message").textContent = "No installed font is of these classes.";
  $("page-number").textContent = "Page " + page + " of " + pages;
  $("previous-page").disabled = page <= 1;
  $("next-page").disabled = page >= pages;
}

function setUpBrowse() {
  for (const [value, label] of CLASSES) {
    const select = element("select", { id: "class-" + value });
    for (const [how, text] of [["", "either"], ["any", "any of"], ["class", "all of"], ["not", "none of"]])
      select.append(element("option", { value: how, text }));
    $("class-choices").append(element("p", {}, element("label", { for: "class-" + value, text: label }), " ", select));
  }
  $("browse-form").addEventListener("submit", (e) => { e.preventDefault(); browse(0); });
  $("previous-page").addEventListener("click", () => browse(Math.max(0, browseOffset - PAGE_SIZE)));
  $("next-page").addEventListener("click", () => browse(browseOffset + PAGE_SIZE));
}

// ---- start

setUpIdentify();
setUpAlternatives();
setUpBrowse();
let redrawTimer = null;
$("sample").addEventListener("input", () => { clearTimeout(redrawTimer); redrawTimer = setTimeout(redrawSpecimens, 300); });
window.addEventListener("hashchange", route);
watchProgress();
route();
