"""Prints the text of an HTML page on standard input: a line for each row, heading and paragraph. In a graph, "line" and
"bar" stand for what is drawn."""

import sys
from html.parser import HTMLParser

ENDS = {"tr", "h1", "h2", "p", "div", "figure", "title"}
DRAWN = {"polyline": "line", "circle": "line", "rect": "bar"}


class Page(HTMLParser):
    def __init__(self):
        super().__init__()
        self.words, self.hidden = [], False

    def handle_starttag(self, tag, _attributes):
        self.hidden = self.hidden or tag in ("script", "style")
        if tag in DRAWN:
            self.words.append(DRAWN[tag])

    def handle_endtag(self, tag):
        self.hidden = self.hidden and tag not in ("script", "style")
        if tag in ("td", "th"):
            self.words.append("|")
        if tag in ENDS and self.words:
            print(" ".join(self.words))
            self.words = []

    def handle_data(self, data):
        if not self.hidden:
            self.words += data.split()


Page().feed(sys.stdin.read())
