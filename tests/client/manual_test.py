"""The numbers of the manual pages are those of the sources: a wrong one would mislead the operator."""

import re

from scratch import ROOT

# Name of a constant, its unit, page, and the sentence about it; {} stands for its value in that unit.
NUMBERS = (
    ("default_timeout", 1, "schedctl.1", "look-up, connection and login N s {} s"),
    ("default_timeout", 1, "schedctl.1", "room to send a request N s {} s"),
    ("default_module_silence", 1, "schedctl.1", "several hosts N s {} s"),
    ("close_timeout", 1, "schedctl.1", "the last messages before the end {} s {} s"),
    ("place_time", 1, "schedctl.1", "scheduler itself for a second does not count"),
    ("login_retry", 60, "schedctl.1", "refused the login, after a minute"),
    ("dead_peer_timeout", 1, "schedctl.1", "has not answered for {} seconds"),
    ("order_limit", 1000, "schedctl.1", "ended within {} seconds is in the order"),
    ("max_answer", 1 << 20, "schedctl.1", "has at most {} MiB"),
    ("max_unread", 1 << 20, "schedctl.1", "With one host at most {} MiB wait"),
    ("max_messages", 1, "schedctl.1", "the newest {} messages of each scheduler"),
    ("max_listed", 1, "schedctl.1", "the last {} of all hosts"),
    ("history_size", 1, "schedctl.1", "cut to its newest {} lines"),
    ("longest_history_file", 1024, "schedctl.1", "Beyond {} KiB"),
    ("scrape_timeout", 1, "schedctl-metrics.1", "has not answered after {} seconds"),
    ("http_lifetime", 1, "schedctl-metrics.1", "ends after {} seconds and -t"),
    ("http_memory", 1024, "schedctl-metrics.1", "may have {} kB"),
    ("max_http_connections", 1, "schedctl-metrics.1", "{} connections are served at once"),
)


def text_of(page):
    """Without the macros, each run of blanks as one."""
    lines = (ROOT / "man" / page).read_text().replace(" Ta ", " ").splitlines()
    macro = re.compile(r"^\.(It|Dq|Fl|Ar|Nm|Pa|Dv) (Li |Dv )?|\\&")
    lines = [macro.sub(lambda m: "-" * (m[1] == "Fl"), line) for line in lines]
    return re.sub(r"[ \n]+", " ", " ".join(lines))


def value_of(name, sources):
    """Of the constant with this name, which is set in one place."""
    found, = re.findall(rf"\b{name}(?:\{{|\s*=\s*)([0-9' <*UL]+)", sources)
    return eval(re.sub("['UL]", "", found).strip())


class Manual:
    def NumbersAreThoseOfTheProgram(self):
        sources = "".join(path.read_text() for path in sorted((ROOT / "client").rglob("*.[ch]*")))
        for name, unit, page, sentence in NUMBERS:
            value = value_of(name, sources) / unit
            wanted = sentence.format(*[f"{value:g}"] * 2)
            assert re.search(r"(?<!\d)" + re.escape(wanted), text_of(page)), (name, value)
            assert "{" in sentence or value == 1, (name, value)
