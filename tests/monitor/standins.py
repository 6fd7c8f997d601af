"""Stand-ins for the device-only helper programs of rtrace, and the
namespace-private /usr/bin that shows them beside the real iostat and
pidstat."""
import os
import subprocess

HEARTH = r"""#!/bin/sh
# Stand-in for the device's main application: says how it was started,
# then ticks until it is told to stop.
echo "hearth $*"
trap 'kill $t 2>/dev/null; exit 0' TERM
i=0
while :; do
    i=$((i + 1))
    echo "hearth tick $i"
    sleep 0.2 & t=$!
    wait $t
done
"""

SIGNALPOST = r"""#!/bin/sh
# Stand-in for the device's event listener.
echo "signalpost $*"
trap 'kill $t 2>/dev/null; exit 0' TERM
i=0
while :; do
    i=$((i + 1))
    echo "event $i button"
    sleep 0.3 & t=$!
    wait $t
done
"""


def install(base="/run/standins"):
    """Overlays /usr/bin (in this mount namespace only) with the stand-ins.
    Needs real iostat and pidstat (sysstat) at their device paths."""
    for tool in ("/usr/bin/iostat", "/usr/bin/pidstat"):
        if not os.access(tool, os.X_OK):
            raise RuntimeError(f"{tool} missing: install sysstat (tools/deps.sh)")
    up, work = base + "/up", base + "/work"
    os.makedirs(up, exist_ok=True)
    os.makedirs(work, exist_ok=True)
    for name, text in (("hearth", HEARTH), ("signalpost", SIGNALPOST)):
        with open(f"{up}/{name}", "w") as f:
            f.write(text)
        os.chmod(f"{up}/{name}", 0o755)
    subprocess.run(["mount", "-t", "overlay", "overlay", "-o",
                    f"lowerdir=/usr/bin,upperdir={up},workdir={work}", "/usr/bin"], check=True)
