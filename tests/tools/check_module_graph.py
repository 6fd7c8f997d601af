#!/usr/bin/env python3
"""The link graph of the project's targets stays free of cycles.

Configures the source tree into a scratch directory with `cmake --graphviz`
and reads the target graph back: a cycle between libraries (one module
linking another that links it back) fails, and so does a front end that
carries libraries it has no use for.
"""
import argparse
import re
import subprocess
import sys
import tempfile
from pathlib import Path

NODE = re.compile(r'^\s*"(node\d+)" \[ label = "([^"]+)"')
EDGE = re.compile(r'^\s*"(node\d+)" -> "(node\d+)"')

# The CGI front end prints one status page and hands a descriptor on: it must
# not bring the archive, zlib, libcurl or inih with it.
FRONTEND = "cgifront"
FRONTEND_MUST_NOT_REACH = ("tn_archive", "ZLIB::ZLIB", "CURL::libcurl", "PkgConfig::INIH")


def read_graph(dot_text):
    """{target: set of targets it links} from a graphviz file of cmake."""
    names = {}
    edges = []
    for line in dot_text.splitlines():
        m = NODE.match(line)
        if m:
            names[m.group(1)] = m.group(2)
            continue
        m = EDGE.match(line)
        if m:
            edges.append((m.group(1), m.group(2)))
    graph = {name: set() for name in names.values()}
    for a, b in edges:
        if a in names and b in names:
            graph[names[a]].add(names[b])
    return graph


def find_cycle(graph):
    """One cycle as a list of targets (first repeated last), or None."""
    state = {}
    stack = []

    def visit(node):
        state[node] = "open"
        stack.append(node)
        for nxt in sorted(graph.get(node, ())):
            if state.get(nxt) == "open":
                return stack[stack.index(nxt):] + [nxt]
            if nxt not in state:
                found = visit(nxt)
                if found:
                    return found
        stack.pop()
        state[node] = "done"
        return None

    for node in sorted(graph):
        if node not in state:
            found = visit(node)
            if found:
                return found
    return None


def reachable(graph, start):
    seen = set()
    todo = [start]
    while todo:
        node = todo.pop()
        for nxt in graph.get(node, ()):
            if nxt not in seen:
                seen.add(nxt)
                todo.append(nxt)
    return seen


def configure_graph(source, generator):
    with tempfile.TemporaryDirectory(prefix="module-graph-") as tmp:
        dot = Path(tmp) / "targets.dot"
        cmd = ["cmake", "-S", str(source), "-B", str(Path(tmp) / "build"),
               "-DTOOLNEST_TESTS=OFF", "-DTOOLNEST_BENCH=OFF", f"--graphviz={dot}"]
        if generator:
            cmd += ["-G", generator]
        run = subprocess.run(cmd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                             text=True, check=False)
        if run.returncode != 0:
            sys.stdout.write(run.stdout)
            sys.exit("cmake could not configure the tree for its graph")
        return dot.read_text()


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--source", required=True)
    parser.add_argument("--generator", default="")
    args = parser.parse_args()

    # The detector itself first, so a broken one cannot pass the tree.
    assert find_cycle({"a": {"b"}, "b": {"c"}, "c": {"a"}}) == ["a", "b", "c", "a"]
    assert find_cycle({"a": {"b", "c"}, "b": {"c"}, "c": set()}) is None

    graph = read_graph(configure_graph(args.source, args.generator))
    if "tn_common" not in graph or FRONTEND not in graph:
        sys.exit("the graph names none of the project's targets")

    failed = False
    cycle = find_cycle(graph)
    if cycle:
        print("link cycle: " + " -> ".join(cycle))
        failed = True
    extra = sorted(reachable(graph, FRONTEND) & set(FRONTEND_MUST_NOT_REACH))
    if extra:
        print(f"{FRONTEND} links what it does not use: " + ", ".join(extra))
        failed = True
    if failed:
        return 1
    print(f"{len(graph)} targets, no link cycle")
    return 0


if __name__ == "__main__":
    sys.exit(main())
