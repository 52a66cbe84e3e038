"""What runs at the same time may make of the frequency rows, and what not.

Told from the server's general log: which connection sent which statement when. The log has a statement before
it is carried out, and the next one of the same connection after that, so each took place between two known
moments. What a run has read shows in what it did next: it wrote the number plus one, or a first row, or went
on without. The statements of a run are no transaction, so each number must have been in the table at some
moment of its reading, and no more is asked: two runs may both find no row and insert one, or both write the
same number plus one.
"""

import collections
import dataclasses
import itertools
import math
import re

_STATEMENTS = (
    ("look", re.compile(r"select num from resp_freq where rn_id=(\d+) and email='(.*)'")),
    ("update", re.compile(r"update resp_freq set num=(?P<num>\d+)\+1 where rn_id=(\d+) and email='(.*)'")),
    ("insert", re.compile(r"insert into resp_freq set rn_id=(\d+), email='(.*)', num=1")),
    ("evict", re.compile(r"delete from resp_freq where rn_id=(\d+) and time_resp='(.*)'")),
)


@dataclasses.dataclass
class Statement:
    kind: str         # look, update, insert, evict, or other
    responder: int
    sender: str       # of an eviction the time of the rows
    start: float
    end: float        # infinite when nothing shows that it was carried out
    num: int = None   # of an update the number written, of an insert 1
    text: str = ""

    def is_surely_before(self, other):
        return self.end < other.start


@dataclasses.dataclass
class Look:
    """A run's question for its sender's number, and what it made of the answer."""
    statement: Statement
    answer: object    # a number, None for no row, or "full" for a number at the limit or above


class History:
    """All that was done to the rows, by responder and sender.

    events: (time, server, connection, command, text) in the log's order; server tells one server's life from
    the next, where connections are counted anew
    """

    def __init__(self, events):
        self.looks = collections.defaultdict(list)
        self.writes = collections.defaultdict(list)     # updates and inserts
        self.unlogged = collections.defaultdict(list)   # writes that there may have been
        self.evictions = collections.defaultdict(list)  # by responder
        connections = collections.defaultdict(list)
        for time, server, connection, command, text in events:
            connections[server, connection].append((time, command, text))
        for entries in connections.values():
            self._add(_statements(entries))

    def _add(self, statements):
        for statement, following in itertools.zip_longest(statements, statements[1:]):
            key = statement.responder, statement.sender
            if statement.kind in ("update", "insert"):
                self.writes[key].append(statement)
            elif statement.kind == "evict":
                self.evictions[statement.responder].append(statement)
            elif statement.kind == "look" and following is not None:
                self.looks[key].append(Look(statement, _answer(key, following)))

    def add_unlogged(self, responder, sender, start, limit):
        """A run was under way while the server was stopped, which ends the log before it ends the connections."""
        self.unlogged[responder, sender] += [
            Statement("insert" if num == 1 else "update", responder, sender, start, math.inf, num)
            for num in range(1, limit + 1)]

    def wrong_answers(self, limits, forgetful=()):
        """Each look-up whose answer can't have been in the table, as text.

        limits: by responder, the replies to a sender; forgetful: responders that evict senders
        """
        return [f"responder {key[0]}, {key[1]}: the answer {look.answer} at {look.statement.start:.6f}"
                for key, looks in self.looks.items() for look in looks
                if not self._can_be(key, look, limits[key[0]], key[0] in forgetful)]

    def _can_be(self, key, look, limit, forgetful):
        writes = self.writes[key] + self.unlogged[key]
        if look.answer is None:
            inserted = [write for write in writes
                        if write.kind == "insert" and write.is_surely_before(look.statement)]
            return all(forgetful and self._may_be_gone(write, look.statement) for write in inserted)
        seen = {write.num for write in _visible(writes, look.statement)}
        if look.answer == "full":
            return any(num >= limit for num in seen)
        return look.answer in seen and look.answer < limit

    def _may_be_gone(self, write, look):
        return any(not eviction.is_surely_before(write) and not look.is_surely_before(eviction)
                   for eviction in self.evictions[write.responder])

    def wrong_rows(self, rows, limits, forgetful=()):
        """Each row (responder, sender, num) that can't be there, and each that should be, as text."""
        found = collections.defaultdict(list)
        for responder, sender, num in rows:
            found[responder, sender].append(num)
        wrong = []
        now = Statement("look", 0, "", math.inf, math.inf)
        for key in {*found, *self.writes}:
            writes, nums = self.writes[key] + self.unlogged[key], found[key]
            inserts = [write for write in writes if write.kind == "insert"]
            certain = 0 if key[0] in forgetful else sum(write.end < math.inf for write in inserts)
            possible = {write.num for write in _visible(writes, now)}
            if not certain <= len(nums) <= len(inserts) or not possible.issuperset(nums) \
                    or any(num > limits[key[0]] for num in nums):
                wrong.append(f"responder {key[0]}, {key[1]}: rows {nums}; numbers that may stand {sorted(possible)},"
                             f" {certain} to {len(inserts)} rows")
        return wrong

    def counted(self):
        """By responder and sender, how many replies the runs took for granted."""
        return {key: len(writes) for key, writes in self.writes.items()}

    def double_inserts(self, forgetful=()):
        return sum(max(0, sum(write.kind == "insert" for write in writes) - 1)
                   for key, writes in self.writes.items() if key[0] not in forgetful)

    def lost_updates(self):
        """How many updates wrote a number that another one, of the same sender, wrote as well."""
        return sum(count - 1 for writes in self.writes.values()
                   for count in collections.Counter(
                       write.num for write in writes if write.kind == "update").values())

    def held_back(self):
        return sum(look.answer == "full" for looks in self.looks.values() for look in looks)


def _visible(writes, look):
    """Those whose number may be found by the look-up: begun before its end, and not surely overwritten before it."""
    return [write for write in writes if write.start < look.end and not any(
        write.is_surely_before(later) and later.is_surely_before(look)
        for later in writes if later.kind == "update")]


def _answer(key, following):
    """What a look-up found, from what its connection did next (an eviction comes with an insert)."""
    if (following.responder, following.sender) == key and following.kind == "update":
        return following.num - 1
    if following.kind == "insert" or following.text.startswith("select MIN(time_resp)"):
        return None
    return "full"


def _statements(entries):
    """One connection's entries, its end too, as statements with the times they lie between."""
    ends = [time for time, _, _ in entries[1:]] + [math.inf]
    return [_statement(start, end, text) for (start, _, text), end in zip(entries, ends)]


def _statement(start, end, text):
    for kind, pattern in _STATEMENTS:
        if match := pattern.fullmatch(text):
            *_, responder, sender = match.groups()
            num = int(match["num"]) + 1 if kind == "update" else 1 if kind == "insert" else None
            return Statement(kind, int(responder), sender, start, end, num, text)
    return Statement("other", 0, "", start, end, None, text)
