"""The two reports once more, written to be obviously right and for nothing else.

It shares no code, no language and no structure with the product: every chart is a list of marks
(row, series, once-key) gathered from whole lists of parsed lines, and counted afterwards.
Texts are handled as latin-1, which maps bytes to characters one to one, so that order is byte order.
"""

import datetime
import re
import zoneinfo

MONTHS = ("January February March April May June July August September October November December").split()
BERLIN = zoneinfo.ZoneInfo("Europe/Berlin")
LARGEST_PHOTO_COUNT = 10000
INT_MIN, INT_MAX = -(2 ** 31), 2 ** 31 - 1

FROM_INTERACTION = "<br>The information is gathered from the interaction log."
FROM_AUDIT = "<br>The information is gathered from the audit log."
ONE_PER_DAY = "<br>Only one occurence per day for a series or study is counted."


def scan_time(text):
    """What sscanf("%d/%d/%d %d:%d:%d") reads, numbers out of range pulled to the nearest bound."""
    numbers, rest = [0] * 6, text
    for index, before in enumerate(["", "/", "/", " ", ":", ":"]):
        if before == " ":
            rest = rest.lstrip(" \t\n\v\f\r")
        elif before:
            if not rest.startswith(before):
                break
            rest = rest[1:]
        match = re.match(r"[ \t\n\v\f\r]*([+-]?[0-9]+)", rest)
        if not match:
            break
        numbers[index] = max(INT_MIN, min(INT_MAX, int(match.group(1))))
        rest = rest[match.end():]
    return numbers


def photo_count(text):
    match = re.match(r"[ \t\n\v\f\r]*([+-]?[0-9]+)", text)
    return int(match.group(1)) if match else 0


class Line:
    def __init__(self, text):
        fields = [field.split("\0")[0] for field in text.strip(" \t\r\n").split(";")]
        self.complete = len(fields) >= 4
        self.user = self.name = self.event = ""
        self.params, self.valid = [], False
        if self.complete:
            self.user, self.event, self.params = fields[1], fields[3], fields[4:]
            self.name = "Weblink" if self.user.startswith("invite-") else self.user
            self.month, self.day, self.year, self.hour, self.minute, self.second = scan_time(fields[0])
            self.valid = 1 <= self.month <= 12 and 1900 <= self.year <= 2100

    def param(self, index):
        return self.params[index] if index < len(self.params) else None

    def date_text(self):
        local = datetime.datetime(self.year, self.month, 1) + datetime.timedelta(
            days=self.day - 1, hours=self.hour, minutes=self.minute, seconds=self.second)
        utc = local.replace(tzinfo=BERLIN).astimezone(datetime.timezone.utc)
        return "%02d %s %04d %02d:%02d" % (utc.day, MONTHS[utc.month - 1][:3], utc.year, utc.hour, utc.minute)


def lines_of(raw):
    return [Line(piece) for piece in raw.decode("latin-1").split("\n")[1:]]


def tally(marks, keep_width):
    """marks: (row, series, once) in log order; once is None or the text that must not occur twice."""
    seen, rows, width = set(), {}, 1
    for row, series, once in marks:
        width = max(width, series + 1)
        if once is not None:
            if once in seen:
                continue
            seen.add(once)
        counts = rows.setdefault(row, {})
        counts[series] = counts.get(series, 0) + 1
    return rows, (width if keep_width else None)


def chart(title, description, labels, marks, by_month):
    rows, width = tally(marks, not by_month)
    width = max(width or 0, len(labels))
    if not rows or not labels:
        return None
    names = {row: "%s %d" % (MONTHS[row[1] - 1], row[0]) for row in rows} if by_month else {row: row for row in rows}
    ordered = sorted(rows)
    return {"title": title, "description": description, "keys": labels,
            "rows": [[names[row], [rows[row].get(series, 0) for series in range(width)]] for row in ordered]}


def month_once(line, token, series):
    return "%d-%s-%d" % (line.year * 16 + line.month, token, series)


def category_once(category, token, series):
    return "%s-%s-%d" % (category, token, series)


def place(names, name):
    if name not in names:
        names.append(name)
    return names.index(name)


def usage(interaction_raw, audit_raw, groups, details):
    """groups: user name to list of group names. Returns the charts that the page shows, in order."""
    interaction = [line for line in lines_of(interaction_raw) if line.valid]
    audit = [line for line in lines_of(audit_raw) if line.valid]
    marks = {number: [] for number in range(1, 20)}
    group_labels, viewers, photodoc_users = [], [], []

    def when(line):
        return (line.year, line.month)

    for line in interaction:
        if line.name == "Weblink":
            marks[3].append((when(line), 0, month_once(line, line.user, 0)))
            continue
        day = "%s-%d-%d-%d" % (line.user, line.month, line.year, line.day)
        marks[4].append((line.name, 0, category_once(line.name, day, 0)))
        marks[1].append((when(line), 0, month_once(line, line.name, 0)))
        for group in groups.get(line.name, []) or ["No group"]:
            at = place(group_labels, group)
            marks[2].append((when(line), at, month_once(line, line.name, at)))

    for line in interaction:
        if line.event in ("SeriesOpened", "ViewPreviousSeries", "ViewNextSeries"):
            marks[5].append((when(line), 0, None))
        if line.event == "ApplicationPacsSearch":
            marks[12].append((when(line), 0, None))
        if line.event == "QRRetrieve" and line.param(0) in ("Series", "Study"):
            marks[13].append((when(line), 0 if line.param(0) == "Series" else 1, None))
        if line.event == "ChatSendMessage" and line.param(1) in ("Series", "Study", "Audio", "Photo", "Text"):
            marks[14].append((when(line), 1 if line.param(1) in ("Series", "Study") else 0, None))
        if line.event == "PDConfirmDone":
            marks[15].append((when(line), 0, None))
            marks[16].append((when(line), place(photodoc_users, line.name), None))

    largest = -1
    if details:
        for line in interaction:
            if line.event == "PDReviewAssignPhotos" and line.param(0) is not None:
                count = photo_count(line.param(0))
                if 0 <= count <= LARGEST_PHOTO_COUNT:
                    largest = max(largest, count)
                    marks[17].append((when(line), count, None))
            if line.event == "PDTaggingUsed":
                marks[18].append((when(line), 0, None))
            if line.event == "PDReviewOpenView":
                marks[19].append((when(line), 0, None))

    for line in audit:
        if line.event == "DataAccess" and len(line.params) >= 2:
            study, series, day = line.params[0], line.params[1], "-%d-" % line.day
            for at, identifier in ((0, series), (1, study)):
                marks[6].append((when(line), at, month_once(line, line.name + day + identifier, at)))
                marks[7].append((line.name, at, category_once(line.name, day + identifier, at)))
            viewer = place(viewers, line.name)
            marks[9].append((when(line), viewer, month_once(line, day + series, viewer)))
            for group in groups.get(line.name, []):
                for at, identifier in ((0, series), (1, study)):
                    marks[8].append((group, at, category_once(group, line.name + day + identifier, at)))
        if line.event == "DataShare" and len(line.params) >= 3:
            target = {"contact": 0, "weblink": 1, "sendto": 2}.get(line.params[2])
            if target is not None:
                marks[10].append((when(line), target, None))
                marks[11].append((when(line), target, month_once(line, line.params[0], target)))

    both = ["Series", "Studies"]
    targets = ["Contact", "Weblink", "AET"]
    this = "This diagram visualizes "
    period = " over the specified time period."
    table = [
        (1, "Active users per month", ["Users"], this + "the number of active users per month" + period + FROM_INTERACTION),
        (2, "Active users in group per month", group_labels,
         this + "the number of active users per group per month" + period + FROM_INTERACTION),
        (3, "Active weblink users per month", ["Users"],
         this + "the number of active weblink users per month" + period + FROM_INTERACTION),
        (4, "Active users", ["Days active"], this + "how many days users were active" + period + FROM_INTERACTION),
        (5, "Series viewed per month", ["Series"], this + "the number of series viewed" + period + FROM_INTERACTION),
        (6, "Series and Studies viewed per month", both,
         this + "the number of series and studies viewed per month" + period + ONE_PER_DAY + FROM_AUDIT),
        (7, "Series and Studies viewed per user", both,
         this + "the number of series and studies viewed per user" + period + ONE_PER_DAY + FROM_AUDIT),
        (8, "Series and Studies viewed per group", both,
         this + "the number of series and studies viewed per group" + period + ONE_PER_DAY + FROM_AUDIT),
        (9, "Series and Studies viewed per user per month", viewers,
         this + "the number of series and studies viewed per user per month" + period + ONE_PER_DAY + FROM_AUDIT),
        (10, "Series shared per month", targets,
         this + "the number of series shared per month to a target" + period + FROM_AUDIT),
        (11, "Studies shared per month", targets,
         this + "the number of studies shared per month to a target" + period + FROM_AUDIT),
        (12, "Queries per month", ["Queries"],
         this + "the number of queries to a PACS performed" + period + FROM_INTERACTION),
        (13, "Series and Studies retrieved per month", both,
         this + "the number of retrieves from a PACS performed" + period + FROM_INTERACTION),
        (14, "Chat messages written per month", ["Messages", "Shares"],
         this + "the number of chat and share messages sent" + period +
         "<br>Chat messages include text, photo and audio messages." + FROM_INTERACTION),
        (15, "Photodocs performed per month", ["Photodocs done"],
         this + "the number of completed photodoc workflows per month" + period + FROM_INTERACTION),
        (16, "Photodocs performed per user per month", photodoc_users,
         this + "the number of of completed photodoc workflows per user per month" + period + FROM_INTERACTION),
        (17, "Assigned photos per photodoc per month", [str(n) for n in range(largest + 1)],
         this + "the number of assigned photos per photodoc per month" + period + FROM_INTERACTION),
        (18, "Photodoc tagging used per month", ["Photodoc tagging used"],
         this + "the number of used of tagging functionality in photodoc per month" + period + FROM_INTERACTION),
        (19, "Photodoc photos viewed per month", ["Photodoc photos viewed"],
         this + "the number of photos viewed in photodoc per month" + period + FROM_INTERACTION),
    ]
    charts = [chart(title, text, labels, marks[number], number not in (4, 7, 8)) for number, title, labels, text in table]
    return [found for found in charts if found]


def teleradiology(audit_raw):
    marks = {"1": "\u2713", "": "\u2717", "passed": "\u2705", "failed": "\u274c"}
    marks = {text: mark.encode("utf-8").decode("latin-1") for text, mark in marks.items()}
    check, lux, speed = [], [], []
    for line in lines_of(audit_raw):
        if not line.valid:
            continue
        two = [line.param(0) or "", line.param(1) or ""]
        if line.event == "DailyConstancyCheck":
            cells = [marks.get(text, text) for text in line.params[:6]]
            check.append([line.date_text(), line.name] + cells + [""] * (6 - len(cells)))
        elif line.event == "ConstancyLuxMeter":
            lux.append([line.date_text(), line.name] + two)
        elif line.event == "ConstancySpeedTest":
            speed.append([line.date_text(), line.name] + two)
    tables = [
        ("Daily constancy check",
         ["Day", "Tester", "Line pair grid in center and corners", "5% and 95% fields",
          "QUALITY CONTRO((L) white and gray)", "Centering, borders and lines of the grid", "Gradient",
          "passed/failed"], check,
         "This table lists the daily constancy check by a tester. Columns 3 to 7 represent the checkboxes. "
         "The last column shows whether the check was successful or not."),
        ("Lux Meter", ["Date", "Tester", "Lux", "Room class"], lux,
         "This table lists the lux meter measurement with the current lux value and the corresponding room class."),
        ("Download speed test", ["Date", "Tester", "Quick/Detailed", "Duration (s)"], speed,
         "This table lists the download speed of a given test dataset with its duration in seconds. "
         "Quick downloads a 10% of the dataset and extrapolates the duration while Detailed downloads the whole "
         "dataset."),
    ]
    return [{"title": title, "description": text, "header": header, "rows": rows}
            for title, header, rows, text in tables if rows]
