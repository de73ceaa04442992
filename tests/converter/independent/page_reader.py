"""Reads the charts and tables back out of a report page (texts without double quotes only)."""

import re

STRING = r'"([^"]*)"'


def strings(literal):
    return re.findall(STRING, literal)


def only(pattern, text):
    found = re.findall(pattern, text, re.S)
    if len(found) != 1:
        raise ValueError("expected one %s, found %d" % (pattern, len(found)))
    return found[0]


def blocks(page, kind):
    """The text of every chart or table, from its opening div to the description below it."""
    starts = [match.start() for match in re.finditer(r'<div id="(?:chart|table)-\d+"', page)] + [len(page)]
    for start, end in zip(starts, starts[1:]):
        if page.startswith('<div id="%s-' % kind, start):
            yield page[start:end]


def charts(page):
    result = []
    for number, block in enumerate(blocks(page, "chart")):
        assert block.startswith('<div id="chart-%d"' % number), block[:40]
        rows = []
        for label, members in re.findall(r'\{ xLabel: "([^"]*)"((?:, "[^"]*": -?[0-9.]+)*)\}', only(r"var data = (.*?);\n", block)):
            values = re.findall(r', "([^"]*)": (-?[0-9]+)\.000000', members)
            rows.append([label, [int(value) for _, value in values], [name for name, _ in values]])
        keys = strings(only(r"var keys = (.*?);\n", block))
        assert all(names == keys for _, _, names in rows), "members and keys differ"
        assert "var numCols = 5\n" in block
        result.append({"title": only(r"<h2>(.*?)</h2>", block), "description": only(r"<p>(.*?)</p>", block),
                       "keys": keys, "rows": [[label, values] for label, values, _ in rows]})
    return result


def tables(page):
    result = []
    for number, block in enumerate(blocks(page, "table")):
        assert block.startswith('<div id="table-%d"' % number), block[:40]
        header = strings(only(r"var tableHeader = (.*?);\n", block))
        rows = []
        for row in re.findall(r"\{([^}]*)\}", only(r"var tableContent = (.*?);\n", block)):
            cells = re.findall(r'"([^"]*)":"([^"]*)"', row)
            assert [name for name, _ in cells] == header, "columns and header differ"
            rows.append([text for _, text in cells])
        result.append({"title": only(r"<h2>(.*?)</h2>", block), "description": only(r"<p>(.*?)</p>", block),
                       "header": header, "rows": rows})
    return result
