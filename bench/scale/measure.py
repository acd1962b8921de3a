"""measure.py BUILD [TOPIC...]: measures the load of a fleet on the servers in a private network, and prints it.

Without topics, all are measured. The figures are written to figures.json, which compute.py reads; figures of other
topics remain in that file.
"""

import datetime
import json
import subprocess
import sys
import time
from pathlib import Path

import cluster_rates
import dns_costs
import redis_costs

FIGURES = Path(__file__).with_name("figures.json")
TOPICS = {
    "redis": redis_costs.measure,
    "bind": dns_costs.measure_bind,
    "knot": dns_costs.measure_knot,
    "policies": dns_costs.measure_policies,
    "redis_cluster": cluster_rates.measure,
    "redis_wave": redis_costs.measure_wave,
    "knot_wave": dns_costs.measure_wave,
}


def machine():
    lines = Path("/proc/cpuinfo").read_text().splitlines()
    model = next(line.split(":", 1)[1].strip() for line in lines if line.startswith("model name"))
    load = Path("/proc/loadavg").read_text().split()[0]
    return {"date": str(datetime.date.today()), "processor": model, "load": load}


def main():
    build = Path(sys.argv[1]).resolve()
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    figures = json.loads(FIGURES.read_text()) if FIGURES.exists() else {}
    figures["machine"] = machine()
    for topic in sys.argv[2:] or TOPICS:
        start = time.monotonic()
        figures[topic] = TOPICS[topic](build)
        print(f"-- {topic}, {time.monotonic() - start:.0f} s", flush=True)
        print(json.dumps(figures[topic], indent=1), flush=True)
    FIGURES.write_text(json.dumps(figures, indent=1) + "\n")


main()
