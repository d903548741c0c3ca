#!/usr/bin/env python3
"""Writes the three JSON documents of the JSON benchmark (bench/json), about 1 MB each.

  records.json   an array of small objects, as a list of tickets or tokens comes
  config.json    a deeply keyed configuration-like object
  strings.json   string-heavy text with escapes and non-ASCII characters

The output is deterministic (fixed seed); run it from anywhere:
  python3 bench/data/generate_json.py
"""
import json
import os
import random

TARGET = 1_000_000
HERE = os.path.dirname(os.path.abspath(__file__))
WORDS = ("alpha bravo charlie delta echo foxtrot golf hotel india juliet kilo lima mike "
         "november oscar papa quebec romeo sierra tango uniform victor whiskey xray yankee zulu").split()
NON_ASCII = ["Grüße", "Straße", "naïve", "café", "Ærøskøbing", "Ελληνικά", "русский", "日本語",
             "中文字符", "한국어", "עברית", "العربية", "€ 100", "½ ¼ ¾", "ümlaut", "Ångström"]


def word(rng):
    return rng.choice(WORDS)


def sentence(rng, count):
    return " ".join(word(rng) for _ in range(count))


def decimal(rng, scale):
    # Plain decimals without exponent, so that every parser reads the same value.
    return round(rng.uniform(-scale, scale), rng.randint(1, 6))


def records(rng):
    items = []
    size = 2
    index = 0
    while size < TARGET:
        item = {
            "id": index,
            "uuid": "%08x-%04x-%04x" % (rng.getrandbits(32), rng.getrandbits(16), rng.getrandbits(16)),
            "name": word(rng) + "-" + word(rng),
            "active": rng.random() < 0.7,
            "score": decimal(rng, 1000),
            "count": rng.randint(0, 1_000_000),
            "owner": None if rng.random() < 0.2 else word(rng),
            "tags": [word(rng) for _ in range(rng.randint(0, 4))],
        }
        text = json.dumps(item, separators=(",", ":"))
        size += len(text) + 1
        items.append(item)
        index += 1
    return items


def config(rng):
    def section(depth):
        node = {}
        for key_index in range(rng.randint(3, 7)):
            key = "%s_%s_%d" % (word(rng), word(rng), key_index)
            if depth < 6 and rng.random() < 0.35:
                node[key] = section(depth + 1)
            else:
                choice = rng.random()
                if choice < 0.25:
                    node[key] = rng.randint(0, 65535)
                elif choice < 0.4:
                    node[key] = rng.random() < 0.5
                elif choice < 0.5:
                    node[key] = decimal(rng, 100)
                elif choice < 0.6:
                    node[key] = [rng.randint(0, 100) for _ in range(rng.randint(1, 5))]
                else:
                    node[key] = "/etc/%s/%s.conf" % (word(rng), word(rng))
        return node

    root = {}
    index = 0
    while len(json.dumps(root, indent=1)) < TARGET:
        for _ in range(50):
            root["module_%04d_%s" % (index, word(rng))] = section(1)
            index += 1
    return root


def strings(rng):
    escapes = ["\n", "\t", "\"", "\\", "/", "\r", "\b", "\f"]
    lines = []
    size = 2
    while size < TARGET:
        parts = []
        for _ in range(rng.randint(4, 12)):
            choice = rng.random()
            if choice < 0.45:
                parts.append(sentence(rng, rng.randint(1, 6)))
            elif choice < 0.75:
                parts.append(rng.choice(NON_ASCII))
            else:
                parts.append(rng.choice(escapes))
        text = " ".join(parts)
        size += len(json.dumps(text, ensure_ascii=False).encode("utf-8")) + 1
        lines.append(text)
    return {"title": "Strings with escapes and non-ASCII text", "lines": lines}


def write(name, document, ensure_ascii, indent=None):
    text = json.dumps(document, ensure_ascii=ensure_ascii, indent=indent,
                      separators=(",", ":") if indent is None else (",", ": "))
    with open(os.path.join(HERE, name), "w", encoding="utf-8", newline="\n") as out:
        out.write(text)
        out.write("\n")


def main():
    rng = random.Random(20240607)
    write("records.json", records(rng), ensure_ascii=True)
    write("config.json", config(rng), ensure_ascii=True, indent=1)
    # Half the strings carry non-ASCII text raw, half as \u escapes.
    document = strings(rng)
    half = len(document["lines"]) // 2
    raw = json.dumps(document["lines"][:half], ensure_ascii=False)
    escaped = json.dumps(document["lines"][half:], ensure_ascii=True)
    with open(os.path.join(HERE, "strings.json"), "w", encoding="utf-8", newline="\n") as out:
        out.write('{"title":%s,"raw":%s,"escaped":%s}\n' % (json.dumps(document["title"]), raw, escaped))


if __name__ == "__main__":
    main()
