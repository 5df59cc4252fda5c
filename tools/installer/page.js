"use strict";

const details = [...document.querySelectorAll("details")];
const switches = document.getElementById("switches");
let closed = [];

switches.hidden = false;
switches.addEventListener("click", (event) => {
  const wanted = event.target.dataset.open;
  if (wanted) {
    for (const each of details) each.open = wanted === "yes";
  }
});

// Paper cannot be opened.
addEventListener("beforeprint", () => {
  closed = details.filter((each) => !each.open);
  for (const each of closed) each.open = true;
});
addEventListener("afterprint", () => {
  for (const each of closed) each.open = false;
});
