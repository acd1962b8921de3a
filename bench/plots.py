"""Draws the plots of the page with gnuplot."""

import shutil
import subprocess
import tempfile
from pathlib import Path

HEADER = """set terminal svg size 860,420 background rgb "white"
set output "{output}"
set datafile separator tab
set key outside right top noenhanced
set grid ytics
"""
SCRIPTS = {
    "pair": """set title "Allocate and free one block"
set ylabel "instructions"
set yrange [0:1000]
set xlabel "bytes of the class (axis cut at 1,000 instructions)"
set logscale x 2
plot for [i=2:{columns}] "{data}" using 1:i with linespoints title columnheader(i)
""",
    "batches": """set title "Allocate 1,000 blocks, write to each, free all; per block"
set ylabel "instructions"
set logscale y
set xtics rotate by -60 noenhanced
set style data points
plot for [i=2:{columns}] "{data}" using i:xtic(1) pointtype 6+i title columnheader(i)
""",
    "request": """set title "Text of a request"
set ylabel "instructions"
set xlabel "addresses"
set logscale xy
plot for [i=2:{columns}] "{data}" using 1:i with linespoints title columnheader(i)
""",
    "latency": """set title "From an address change to the call that reports it, 200 changes in order of their wait"
set ylabel "s"
set yrange [0:11]
set xlabel "changes"
plot "{data}" using 0:1 with points pointtype 7 pointsize 0.4 title "addrpubd", 10.2 title "bar", 5.1 title "average"
""",
}


def draw(name, lines, folder):
    """Draws one plot. Returns the name of its file, or None without gnuplot."""
    if shutil.which("gnuplot") is None:
        print("-- plots left out: gnuplot (gnuplot-nox) is not installed")
        return None
    output = Path(folder) / f"{name}.svg"
    with tempfile.NamedTemporaryFile("w", suffix=".tsv") as data:
        data.writelines("\t".join(map(str, line)) + "\n" for line in lines)
        data.flush()
        values = {"output": output, "data": data.name, "columns": len(lines[0])}
        script = (HEADER + SCRIPTS[name]).format(**values)
        subprocess.run(["gnuplot"], input=script, text=True, check=True)
    return output.name
