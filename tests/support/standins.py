"""Stand-ins for the device-only helper programs of rtrace, and the
namespace-private /usr/bin that shows them beside the real iostat and
pidstat."""
import os
import subprocess

# A device-only helper: says how it was started, then prints LINE every
# PERIOD seconds until it is told to stop.
TEMPLATE = r"""#!/bin/sh
# Stand-in for the device's {what}.
echo "{name} $*"
trap 'kill $t 2>/dev/null; exit 0' TERM
i=0
while :; do
    i=$((i + 1))
    echo "{line}"
    sleep {period} & t=$!
    wait $t
done
"""

STANDINS = {
    "hearth": TEMPLATE.format(what="main application", name="hearth", line="hearth tick $i",
                              period="0.2"),
    "signalpost": TEMPLATE.format(what="event listener", name="signalpost", line="event $i button",
                                  period="0.3"),
}


def install(base="/run/standins"):
    """Overlays /usr/bin (in this mount namespace only) with the stand-ins.
    Needs real iostat and pidstat (sysstat) at their device paths."""
    for tool in ("/usr/bin/iostat", "/usr/bin/pidstat"):
        if not os.access(tool, os.X_OK):
            raise RuntimeError(f"{tool} missing: install sysstat (tools/deps.sh)")
    up, work = base + "/up", base + "/work"
    os.makedirs(up, exist_ok=True)
    os.makedirs(work, exist_ok=True)
    for name, text in STANDINS.items():
        with open(f"{up}/{name}", "w") as f:
            f.write(text)
        os.chmod(f"{up}/{name}", 0o755)
    subprocess.run(["mount", "-t", "overlay", "overlay", "-o",
                    f"lowerdir=/usr/bin,upperdir={up},workdir={work}", "/usr/bin"], check=True)
