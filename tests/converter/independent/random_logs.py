"""Random logs in which every peculiarity that the reports must get right turns up again and again."""

import random

HEADER = "Time;User;Device;Event;Param0;Param1;Param2;Param3;Param4;Param5;Param6;Param7"

# "a-1"/"a", day 2/1 and series "x"/"2-x" join to the same once-key; so do groups and users with dashes.
USERS = ["anna", "bert", "a", "a-1", "A", "B", "anna-3-2021", "invite-4711", "invite-4712", "invite-", "Weblink",
         "Invite-x", "my-invite-x", "", "constructor", "Z\u00fc", "1", "1-1", "x-"]
SERIES = ["1.2.3", "1.2.4", "1.2.5", "x", "2-x", "1-2-x", "x-y", "-x", "", "-"]
STUDIES = ["1.2", "1.3", "2-1.2", "-1-x", ""]
GROUPS = ["radiology", "radiology-a", "a", "No group", "", "cardiology", "a-a", "radiology-a-1"]
TIMES = ["13/01/2021 10:00:00", "0/1/2021 10:00:00", "1/1/1899 1:1:1", "1/1/1900 1:1:1", "12/31/2100 23:59:59",
         "1/1/2101 1:1:1", "", "garbage", "3/7/2021", "3/7/2021 14:05", " 3/ 7/ 2021  14: 5: 9", "3 /7/2021 1:1:1",
         "+3/+7/+2021 14:05:09", "3/-1/2021 10:00:00", "3/0/2021 10:00:00", "2/31/2021 25:61:61",
         "03/28/2021 02:30:00", "10/31/2021 02:30:00", "99999999999/1/2021 1:1:1", "3/7/99999999999 1:1:1", "1/5/2021\t3:4:5"]
PHOTOS = ["0", "1", "3", "7", "010", "12abc", "abc", "", " 4", "+2", "-1", "-2", "-99999999999", "10001", "99999999999",
          "0x10", "12"]
CHECKS = ["1", "", "0", "passed", "failed", "Passed", "2"]


class Writer:
    def __init__(self, seed):
        self.r = random.Random(seed)
        self.users = self.r.sample(USERS, self.r.randint(1, len(USERS)))
        self.years = [2020, 2021] if self.r.random() < 0.7 else [2021]

    def pick(self, values):
        return self.r.choice(values)

    def time(self):
        if self.r.random() < 0.12:
            return self.pick(TIMES)
        return "%02d/%02d/%d %02d:%02d:%02d" % (
            self.r.randint(1, 12), self.pick([1, 2, 5, 6, 21, 28]), self.pick(self.years), self.r.randint(0, 23),
            self.r.randint(0, 59), self.r.randint(0, 59))

    def interaction_event(self):
        kind = self.r.randint(0, 9)
        if kind <= 2:
            return [self.pick(["SeriesOpened", "ViewPreviousSeries", "ViewNextSeries", "seriesopened", "SeriesClosed"])]
        if kind == 3:
            return ["ApplicationPacsSearch"]
        if kind == 4:
            return ["QRRetrieve", self.pick(["Series", "Study", "series", "Studies", ""])]
        if kind == 5:
            return ["ChatSendMessage", "room", self.pick(["Series", "Study", "Audio", "Photo", "Text", "text", ""])]
        if kind == 6:
            return ["PDConfirmDone"]
        if kind == 7:
            return ["PDReviewAssignPhotos", self.pick(PHOTOS)]
        return [self.pick(["PDReviewOpenView", "PDTaggingUsed", "", "DataAccess"])]

    def audit_event(self):
        kind = self.r.randint(0, 9)
        if kind <= 4:
            return ["DataAccess", self.pick(STUDIES), self.pick(SERIES), self.pick(["", "more"])]
        if kind <= 6:
            return ["DataShare", self.pick(STUDIES), "whoever",
                    self.pick(["contact", "weblink", "sendto", "Weblink", "AET", ""])]
        if kind == 7:
            return ["DailyConstancyCheck"] + [self.pick(CHECKS) for _ in range(self.r.randint(0, 8))]
        return [self.pick(["ConstancyLuxMeter", "ConstancySpeedTest", "dailyconstancycheck"]), self.pick(["412", "1", ""]), "2"]

    def line(self, event):
        fields = [self.time(), self.pick(self.users), self.pick(["WS1", "WS2", ""])] + event
        if self.r.random() < 0.7:
            fields += [""] * (12 - len(fields))
        if self.r.random() < 0.03:
            fields = fields[:self.r.randint(1, 6)]
        if self.r.random() < 0.03:
            fields += ["x"] * 5
        return ";".join(fields)

    def log(self, make_event):
        end = self.pick(["\n", "\r\n"])
        lines = [self.pick([HEADER, HEADER, HEADER, "\ufeff" + HEADER, "whatever stands here", ""])]
        for _ in range(self.pick([0, 1, 5, 40, 150, 400])):
            lines.append(self.line(make_event()) if self.r.random() > 0.02 else self.pick(["", " ", ";;;", "\t"]))
        text = end.join(lines)
        return (text + (end if self.r.random() < 0.9 else "")).encode("utf-8")

    def groups(self):
        return {user: self.r.sample(GROUPS, self.r.randint(1, 3))
                for user in USERS + ["Weblink"] if self.r.random() < 0.6}


def make(seed):
    """interaction log, audit log (bytes) and groups of the users, always the same for one seed."""
    writer = Writer(seed)
    groups = writer.groups()
    return writer.log(writer.interaction_event), writer.log(writer.audit_event), groups
