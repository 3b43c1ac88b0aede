#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0-or-later
"""Generates the scan benchmark's tree: text files, copies of ELF programs from /usr/bin, zip and tar.gz
archives and a few EICAR test files (one inside a zip, one inside a tar.gz), all with distinct contents
so that no scanner's cache of clean files can skip one. The tree is kept in TREE/data with a manifest in
TREE/manifest.json and reused as long as the manifest matches the options.

Usage: gentree.py --tree DIR [--files N] [--size-mb N] [--jobs N]
"""
import argparse
import io
import json
import os
import random
import shutil
import sys
import tarfile
import time
import zipfile
from multiprocessing import Pool

LAYOUT = 3  # bump when what is generated changes, so cached trees are rebuilt
EICAR_PLAIN = 5
MAX_ELF = 4 * 1024 * 1024
WORDS = ("scan engine signature archive folder report daemon socket thread worker verdict clean found "
         "limit buffer kernel desktop session package library module plugin record table index value "
         "memory window button settings history quarantine network update version status event detail "
         "lorem ipsum dolor sit amet consectetur adipiscing elit sed do eiusmod tempor incididunt ut labore").split()


def eicar():
    # Built here, never stored in the project.
    return ("X5O!P%@AP[4\\PZX54(P^)7CC)7}$" + "EICAR-STANDARD-" + "ANTIVIRUS-TEST-FILE!$H+H*").encode()


def elf_programs():
    out = []
    for name in sorted(os.listdir("/usr/bin")):
        p = os.path.join("/usr/bin", name)
        try:
            if os.path.islink(p) or not os.path.isfile(p):
                continue
            size = os.path.getsize(p)
            if size == 0 or size > MAX_ELF:
                continue
            with open(p, "rb") as f:
                if f.read(4) == b"\x7fELF":
                    out.append((p, size))
        except OSError:
            continue
    return out


_text_block = None


def text_block():
    global _text_block
    if _text_block is None:
        rnd = random.Random(1)
        lines = []
        size = 0
        while size < 4 * 1024 * 1024:
            line = " ".join(rnd.choice(WORDS) for _ in range(rnd.randint(4, 14))) + "\n"
            lines.append(line)
            size += len(line)
        _text_block = "".join(lines).encode()
    return _text_block


def text_bytes(seed, size):
    """size bytes of text, distinct per seed."""
    block = text_block()
    head = ("kuvbench text %d\n" % seed).encode()
    rnd = random.Random(seed)
    parts = [head]
    have = len(head)
    while have < size:
        start = rnd.randrange(0, len(block) - 1)
        piece = block[start:start + min(size - have, len(block) - start)]
        parts.append(piece)
        have += len(piece)
    return b"".join(parts)[:max(size, len(head))]


def elf_bytes(src, seed):
    with open(src, "rb") as f:
        data = f.read()
    # A trailer makes every copy distinct; the program itself is unchanged.
    return data + ("\nkuvbench copy %d\n" % seed).encode()


def archive_members(task):
    rnd = random.Random(task["seed"])
    members = []
    left = task["size"]
    i = 0
    while left > 0 or not members:
        if task["elfs"] and rnd.random() < 0.3:
            src = rnd.choice(task["elfs"])
            data = elf_bytes(src, task["seed"] * 100 + i)
            name = "bin/%s" % os.path.basename(src)
        else:
            data = text_bytes(task["seed"] * 100 + i, max(1024, min(left, rnd.randint(8 * 1024, 256 * 1024))))
            name = "doc/part%02d.txt" % i
        members.append((name, data))
        left -= len(data)
        i += 1
    if task.get("eicar"):
        members.append(("doc/readme.com", eicar()))
    return members


def make(task):
    path = task["path"]
    kind = task["kind"]
    if kind == "text":
        data = text_bytes(task["seed"], task["size"])
        with open(path, "wb") as f:
            f.write(data)
    elif kind == "elf":
        data = elf_bytes(task["src"], task["seed"])
        with open(path, "wb") as f:
            f.write(data)
    elif kind == "append":
        with open(path, "ab") as f:
            f.write(text_bytes(task["seed"] + 10000000, task["size"]))
    elif kind == "eicar":
        with open(path, "wb") as f:
            f.write(eicar())
    elif kind == "zip":
        with zipfile.ZipFile(path, "w", compression=zipfile.ZIP_DEFLATED, compresslevel=1) as z:
            for name, data in archive_members(task):
                z.writestr(name, data)
    elif kind == "tgz":
        with tarfile.open(path, "w:gz", compresslevel=1) as t:
            for name, data in archive_members(task):
                info = tarfile.TarInfo(name)
                info.size = len(data)
                info.mtime = 1700000000
                t.addfile(info, io.BytesIO(data))
    return os.path.getsize(path)


def plan(root, files, size_bytes):
    rnd = random.Random(20261122)
    elfs = elf_programs()
    if not elfs:
        sys.exit("gentree: no ELF programs found in /usr/bin")
    tasks = []
    n_archives = max(2, files * 3 // 100)
    n_plain_eicar = EICAR_PLAIN
    elf_budget = size_bytes * 35 // 100
    archive_budget = size_bytes * 30 // 100
    # ELF copies until their share of the bytes is reached (at most a quarter of the files).
    n_elf_max = files // 4
    elf_tasks = []
    used = 0
    while used < elf_budget and len(elf_tasks) < n_elf_max:
        src, size = rnd.choice(elfs)
        elf_tasks.append({"kind": "elf", "src": src, "size": size})
        used += size
    n_text = files - len(elf_tasks) - n_archives - n_plain_eicar
    if n_text < 1:
        sys.exit("gentree: --files too small")
    text_budget = max(n_text * 512, size_bytes - used - archive_budget)
    mean_text = text_budget // n_text
    for _ in range(n_text):
        tasks.append({"kind": "text", "size": max(64, int(mean_text * rnd.uniform(0.2, 1.8)))})
    tasks.extend(elf_tasks)
    small_elfs = [p for p, s in elfs if s < 512 * 1024]
    for i in range(n_archives):
        tasks.append({"kind": "zip" if i % 2 == 0 else "tgz", "size": archive_budget // n_archives,
                      "elfs": small_elfs, "eicar": i < 2})
    for _ in range(n_plain_eicar):
        tasks.append({"kind": "eicar"})
    rnd.shuffle(tasks)
    ext = {"text": ".txt", "elf": "", "zip": ".zip", "tgz": ".tar.gz", "eicar": ".com"}
    infected = []
    for i, t in enumerate(tasks):
        rel = "d%02d/s%03d/%s%06d%s" % (i // 2000, (i // 100) % 20, t["kind"], i, ext[t["kind"]])
        t["path"] = os.path.join(root, rel)
        t["seed"] = i + 1
        if t["kind"] == "eicar" or t.get("eicar"):
            infected.append(rel)
    return tasks, sorted(infected)


def generate(tree, files, size_mb, jobs):
    manifest_path = os.path.join(tree, "manifest.json")
    want = {"layout": LAYOUT, "files": files, "size_mb": size_mb}
    try:
        with open(manifest_path) as f:
            have = json.load(f)
        if all(have.get(k) == v for k, v in want.items()) and os.path.isdir(os.path.join(tree, "data")):
            return have, True
    except (OSError, ValueError):
        pass
    data = os.path.join(tree, "data")
    if os.path.exists(manifest_path):
        os.unlink(manifest_path)
    shutil.rmtree(data, ignore_errors=True)
    os.makedirs(data)
    started = time.time()
    tasks, infected = plan(data, files, size_mb * 1024 * 1024)
    for d in sorted({os.path.dirname(t["path"]) for t in tasks}):
        os.makedirs(d, exist_ok=True)
    with Pool(jobs) as pool:
        sizes = pool.map(make, tasks, chunksize=64)
        # Archives compress by an amount known only now: top the text files up to the size asked for.
        short = size_mb * 1024 * 1024 - sum(sizes)
        texts = [t for t in tasks if t["kind"] == "text"]
        if short > 0 and texts:
            each = short // len(texts) + 1
            extra = [{"kind": "append", "path": t["path"], "seed": t["seed"], "size": each} for t in texts]
            pool.map(make, extra, chunksize=64)
            sizes = [os.path.getsize(t["path"]) for t in tasks]
    manifest = dict(want)
    manifest.update({"count": len(tasks), "bytes": sum(sizes), "infected": infected,
                     "kinds": {k: sum(1 for t in tasks if t["kind"] == k) for k in ("text", "elf", "zip", "tgz", "eicar")},
                     "seconds": round(time.time() - started, 1)})
    with open(manifest_path + ".tmp", "w") as f:
        json.dump(manifest, f, indent=1)
    os.rename(manifest_path + ".tmp", manifest_path)
    return manifest, False


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("--tree", required=True, help="directory that holds (or will hold) the tree")
    ap.add_argument("--files", type=int, default=20000, help="number of files (default 20000)")
    ap.add_argument("--size-mb", type=int, default=1024, help="total size in MiB (default 1024)")
    ap.add_argument("--jobs", type=int, default=os.cpu_count() or 2, help="parallel writers")
    a = ap.parse_args()
    m, cached = generate(os.path.abspath(a.tree), a.files, a.size_mb, a.jobs)
    print("tree: %d files, %.1f MiB, %d infected (%s)" % (m["count"], m["bytes"] / 1048576.0, len(m["infected"]),
                                                          "cached" if cached else "generated in %ss" % m["seconds"]))


if __name__ == "__main__":
    main()
