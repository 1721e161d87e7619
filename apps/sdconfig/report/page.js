(() => {
    "use strict";
    const told = document.getElementById("told");
    const tell = text => { if (told) told.textContent = text; };

    // What a node says becomes the link to the line of that name.
    const linkTo = (name, node) => {
        const link = document.createElement("a");
        link.href = "#" + name;
        link.append(...node.childNodes);
        node.append(link);
    };

    // Columns by which a table is sorted: the heading's text becomes a button.
    const order = new Intl.Collator("en", { numeric: true }).compare;
    const sort = (table, heading) => {
        const column = heading.cellIndex;
        const down = heading.getAttribute("aria-sort") === "ascending";
        const rows = [...table.tBodies[0].rows].map(row => [row.cells[column].textContent, row]);
        rows.sort((a, b) => (down ? order(b[0], a[0]) : order(a[0], b[0])));
        for (const other of heading.parentNode.cells) other.removeAttribute("aria-sort");
        heading.setAttribute("aria-sort", down ? "descending" : "ascending");
        table.tBodies[0].append(...rows.map(row => row[1]));
    };
    for (const table of document.querySelectorAll("table.rows")) {
        for (const heading of table.tHead.rows[0].cells) {
            const button = document.createElement("button");
            button.type = "button";
            button.append(...heading.childNodes);
            button.addEventListener("click", () => sort(table, heading));
            heading.append(button);
        }
    }

    // The filter, over what each line of the keys says.
    const filter = document.getElementById("filter");
    if (filter) {
        const table = document.querySelector("table.keys");
        const rows = [...table.tBodies[0].rows];
        let texts;
        const apply = () => {
            texts ||= rows.map(row => row.textContent.toLowerCase());
            const words = filter.value.toLowerCase().split(/\s+/).filter(Boolean);
            let shown = 0;
            rows.forEach((row, i) => {
                row.hidden = !words.every(word => texts[i].includes(word));
                shown += row.hidden ? 0 : 1;
            });
            tell(words.length ? `${shown} of ${rows.length} keys` : "");
        };
        let later;
        filter.addEventListener("input", () => {
            clearTimeout(later);
            later = setTimeout(apply, 120);
        });
        document.querySelector(".tools").hidden = false;

        for (const row of rows) linkTo(row.id, row.cells[0]);
        table.addEventListener("click", event => {
            const link = event.target.closest("tbody th a");
            if (link) navigator.clipboard?.writeText(link.href).then(() => tell("The link is copied."), () => {});
        });
    }

    // The lists by file lead to the lines of their keys.
    for (const item of document.querySelectorAll(".by-file li")) {
        const isProperty = item.parentNode.className === "p";
        const name = isProperty ? "p:" + item.textContent : "k:" + item.textContent.toLowerCase();
        if (document.getElementById(name)) linkTo(name, item);
    }
    document.documentElement.className = "js";
})();
