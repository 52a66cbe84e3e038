"""Whom a message is answered to: the rules for sender addresses, written down once more in the plainest way.

RFC 5322 (header fields, folding) and RFC 822 section 3.3 (tokens), read as the program reads them.
Nothing here is shared with the program, so that a slip in one of the two shows.
"""

import re

_OPENING = {"(": ")", '"': '"', "[": "]"}
_KINDS = {"(": "comment", '"': "quoted", "[": "literal"}
_SPECIALS = '()<>@,;:\\".[]'


def sender_of(message):
    """The address that a reply to the message (bytes) goes to, as text with surrogate escapes, or None."""
    for field, groups in (("reply-to", True), ("from", False)):
        value = first_field(message, field)
        if value is not None:
            for local, domain in mailboxes(value, groups):
                return local.split("\0")[0] + "@" + domain.split("\0")[0]
    return None


def first_field(message, wanted):
    """The first field of that name (lower case), unfolded and without white space at its ends, or None."""
    value = None
    for line in _lines(message):
        if line in ("\n", "\r\n"):
            break
        if line[0] in " \t":
            if value is not None:
                value += line
            continue
        if value is not None:
            break
        name, colon, rest = line.partition(":")
        if not colon:
            break
        if name.rstrip(" \t").lower() == wanted:
            value = rest
    return None if value is None else re.sub(r"\r?\n(?=[ \t])", "", value).lstrip(" \t").rstrip(" \t\r\n\v\f")


def _lines(message):
    text = message.decode("ascii", "surrogateescape")
    return [line for line in re.split(r"(?<=\n)", text) if line]


def mailboxes(value, groups):
    """The valid mailboxes of a field, as (local part, domain); those inside a group don't count."""
    for element in _elements(_tokens(value), groups):
        mailbox = _mailbox(element)
        if mailbox is not None:
            yield mailbox


def _tokens(value):
    """The value's tokens as (kind, text). One that never ends is of the kind "error", and the last one."""
    tokens, place = [], 0
    while place < len(value):
        character = value[place]
        if ord(character) <= 32:
            place += 1
            continue
        if character in _OPENING:
            end = _end_of_enclosed(value, place)
            if end is None:
                return tokens + [("error", value[place:])]
            kind = _KINDS[character]
        elif character in _SPECIALS:
            end, kind = place + 1, "special"
        else:
            end, kind = place, "word"
            while end < len(value) and ord(value[end]) > 32 and value[end] not in _SPECIALS:
                end += 1
        tokens.append((kind, value[place:end]))
        place = end
    return [token for token in tokens if token[0] != "comment"]


def _end_of_enclosed(value, start):
    """Behind the comment, quoted string or literal that starts there; None when it never ends."""
    opening, closing, depth, place = value[start], _OPENING[value[start]], 1, start + 1
    while place < len(value):
        if value[place] == "\\":
            place += 1
        elif value[place] == closing:
            depth -= 1
            if depth == 0:
                return place + 1
        elif value[place] == opening == "(":
            depth += 1
        place += 1
    return None


def _elements(tokens, groups):
    """The tokens separated by commas, but for those in <...> and in a group, whose ":" becomes a token "group"."""
    elements, closing = [[]], None
    for kind, text in tokens:
        special = text if kind == "special" else None
        if closing is not None:
            closing = None if special == closing else closing
        elif special == ",":
            elements.append([])
            continue
        elif special == "<":
            closing = ">"
        elif special == ":" and groups:
            kind, closing = "group", ";"
        elements[-1].append((kind, text))
    return elements


def _mailbox(element):
    """(local part, domain) of a valid mailbox, else None."""
    if any(kind in ("error", "group") for kind, _ in element):
        return None
    if ("special", "<") in element:
        element = element[element.index(("special", "<")) + 1:]
        if ("special", ">") not in element:
            return None
        element = _without_route(element[:element.index(("special", ">"))])
    return None if element is None else _address(element)


def _without_route(tokens):
    """What stands behind the route "@a,@b:"; None when the route has no end."""
    if tokens[:1] != [("special", "@")]:
        return tokens
    if ("special", ":") not in tokens:
        return None
    return tokens[tokens.index(("special", ":")) + 1:]


def _address(tokens):
    at = [place for place, token in enumerate(tokens) if token == ("special", "@")]
    if len(at) != 1:
        return None
    local = _dotted(tokens[:at[0]], "quoted")
    domain = _dotted(tokens[at[0] + 1:], "literal")
    return (local, domain) if local and domain else None


def _dotted(tokens, other_kind):
    """The texts put together when they are words, or of the other kind, separated by any dots; else None."""
    after_word = False
    for kind, text in tokens:
        is_dot = (kind, text) == ("special", ".")
        is_word = kind in ("word", other_kind)
        if not is_dot and not is_word or is_word and after_word:
            return None
        after_word = is_word
    return "".join(re.sub(r"\r\n|[\r\n]", " ", text) for _, text in tokens)
