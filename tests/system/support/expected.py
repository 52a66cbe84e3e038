"""What the program's mails must be, byte for byte: the layouts written down once more, in the plainest way.

Nothing here is shared with the program, so that a slip in one of the two shows.
"""

import base64


def reply(sender, recipient, subject, text, *, reply_to="", charset="UTF-8", content_type="text/plain",
          attachments=(), number=1):
    """The reply with that number in its run.

    subject: before it is encoded; text: bytes, in the responder's charset; recipient: in ASCII form;
    attachments: (name, bytes) pairs
    """
    mark = boundary(number)
    lines = [f"Reply-To: {reply_to}"] if reply_to else []
    lines += [f"From: {recipient}", f"To: {sender}", "MIME-Version: 1.0",
              f"Subject: {encoded_word(subject)}"]
    if attachments:
        lines += ["Content-Type: multipart/mixed;", f'\tboundary="{mark}"', "", f"--{mark}"]
    lines += [f'Content-Type: {content_type}; charset="{charset}"', "Content-Transfer-Encoding: 8bit",
              "Content-Disposition: inline", ""]
    mail = _joined(lines) + text + b"\n\n\n"
    for name, content in attachments:
        mail += _joined([f"--{mark}", "Content-Type: application/octet-stream",
                         "Content-Transfer-Encoding: base64", "Content-Disposition: attachment;",
                         f'\tfilename="{encoded_word(name)}"', ""])
        mail += base64_lines(content) + b"\n"
    if attachments:
        mail += _joined([f"--{mark}--"])
    return mail


def size_error_reply(recipient, subject, *, reply_to=""):
    """What goes out in place of a reply over the mail system's size limit; subject: of the incoming message."""
    lines = [f"Reply-To: {reply_to}"] if reply_to else []
    lines += [f"From: {recipient}", "CC: ", f"Subject: {encoded_word('Re: ' + subject)}", "",
              "An error occurred while responding on you request.", "",
              "Autoresponder message size exceeds databytes limit.", "", "", ""]
    return _joined(lines)


def notification(sender, client, client_name, mailname, domain, missing, *, reply_to=""):
    """The mail to the panel's client about missing attachment files; a Reply-To runs into the From line."""
    return _joined([
        (f"Reply-To: {reply_to}" if reply_to else "") + f"From: {sender}",
        f"To: {client}",
        "CC: ",
        "Subject: qrx notification (files missing in attachments repository). ",
        "Content-Type: text/plain; charset=utf-8",
        "Content-Disposition: inline",
        "Content-Transfer-Encoding: 8bit",
        "",
        "",
        f"Notification for qrx client '{client_name}'.",
        "",
        "The following files are missing in the attachment repository",
        f"for the mailname '{mailname}' on domain '{domain}':",
        *missing,
        ""])


def message_copy(message):
    """The incoming message as it is kept and forwarded: one more line feed at its end."""
    return message + b"\n"


def encoded_word(text):
    """A header text: as it stands, or as one Q-encoded word (a leading blank stays outside)."""
    data = text.encode(errors="surrogateescape")
    if not any(_is_special(byte) for byte in data):
        return text
    blank, data = (" ", data[1:]) if data[:1] == b" " else ("", data)
    coded = "".join("_" if byte == 0x20 else f"={byte:02X}" if _is_special(byte) else chr(byte)
                    for byte in data)
    return f"{blank}=?utf-8?Q?{coded}?="


def _is_special(byte):
    return byte < 32 or byte >= 128 or chr(byte) in '!"()*+-/=?_'


def base64_lines(content):
    """45 bytes a line."""
    return b"".join(base64.b64encode(content[at:at + 45]) + b"\n" for at in range(0, len(content), 45))


def boundary(number):
    """The boundary of the run's reply with that number, counted from 1."""
    letters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
    draws = _unseeded_rand(29 * number)[-29:]
    return "--------=_" + "".join(letters[draw % 52] for draw in draws)


def _unseeded_rand(count):
    """The first results of rand(3) in the GNU C library, which is an additive feedback generator (random(3))."""
    state = [1]
    for _ in range(30):
        state.append(16807 * state[-1] % 2147483647)
    state += state[0:3]
    while len(state) < 344 + count:
        state.append((state[-31] + state[-3]) % 2 ** 32)
    return [word >> 1 for word in state[344:344 + count]]


def _joined(lines):
    return "".join(line + "\n" for line in lines).encode(errors="surrogateescape")
