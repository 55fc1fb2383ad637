"""What a run of the benchmark found: the table, the targets, and the plot."""
import statistics

SERVERS = ["ue-proxy", "kamailio", "relay"]
COLOURS = {"ue-proxy": "#2a6fbb", "kamailio": "#c0703a", "relay": "#8a8a8a"}


def values(results, case, server, field):
    return [told[field] for told in results["cases"][case][server] if told.get(field) is not None]


def spread(numbers, digits=2):
    """Median, and in brackets the quartiles."""
    if not numbers:
        return "-"
    low, high = (min(numbers), max(numbers)) if len(numbers) < 4 else statistics.quantiles(numbers, n=4)[::2]
    return f"{statistics.median(numbers):.{digits}f} ({low:.{digits}f}-{high:.{digits}f})"


def ratios(results, case, field, other):
    """Of ue-proxy to the other, pair by pair."""
    return [ours / theirs for ours, theirs in zip(values(results, case, "ue-proxy", field),
                                                  values(results, case, other, field))]


def grid(rows):
    widths = [max(len(row[column]) for row in rows) for column in range(len(rows[0]))]
    lines = ["| " + " | ".join(cell.ljust(width) for cell, width in zip(row, widths)) + " |" for row in rows]
    lines.insert(1, "|" + "|".join("-" * (width + 2) for width in widths) + "|")
    return "\n".join(lines)


def targets(results):
    """(what, found, limit, met); a limit that is a floor is written as a negative number."""
    found = []
    for case in results["cases"]:
        one = case.endswith(" 1 outstanding")
        relay = statistics.median(ratios(results, case, "us_per_message", "relay"))
        if one:
            found.append((f"processor time to the relay's, {case}", relay, 1.8))
        else:
            kamailio = statistics.median(ratios(results, case, "us_per_message", "kamailio"))
            rate = statistics.median(ratios(results, case, "messages_per_s", "kamailio"))
            found.append((f"processor time to kamailio's, {case}", kamailio, 0.5))
            found.append((f"processor time to the relay's, {case}", relay, 1.5))
            found.append((f"messages a second to kamailio's, {case}", rate, -2.0))
        # The receive buffer is one.
        found.append((f"allocations per message, {case}", results["counts"][case]["ue-proxy"]["allocations"], 1.0))
    resident = max(max(values(results, case, "ue-proxy", "resident_kib")) for case in results["cases"])
    found.append(("resident MiB under load", resident / 1024, 8.0))
    found.append(("stripped program, MiB", results["program_bytes"]["ue-proxy"] / 2**20, 1.5))
    found.append(("exec to first answer, ms", statistics.median(results["first_answer_ms"]["ue-proxy"]), 5.0))
    # An allocation more in a thousand messages is a buffer that grew, not one per message.
    return [(what, number, limit, number <= limit + 0.001 if limit > 0 else number >= -limit)
            for what, number, limit in found]


def table(results):
    machine = results["machine"]
    parts = [f"{machine['processors']} processors ({machine['model']}), Linux {machine['kernel']}, load average "
             f"{machine['load_average']:.1f} before the run; {results['repetitions']} repetitions of "
             f"{results['seconds']:g} s. Medians, quartiles in brackets (with fewer than 4: extremes)."]
    rows = [["case", "server", "us per message", "ue-proxy / it", "messages/s", "busy", "p50 us", "p99 us", "calls/msg",
             "allocs/msg", "RSS KiB"]]
    for case in results["cases"]:
        for server in SERVERS:
            counts = results["counts"][case][server]
            calls, allocations = counts.get("syscalls"), counts.get("allocations")
            ratio = spread(ratios(results, case, "us_per_message", server)) if server != "ue-proxy" else ""
            rows.append([case if server == SERVERS[0] else "", server,
                         spread(values(results, case, server, "us_per_message")), ratio,
                         f"{statistics.median(values(results, case, server, 'messages_per_s')):.0f}",
                         f"{100 * statistics.median(values(results, case, server, 'busy')):.0f} %",
                         spread(values(results, case, server, "p50_us"), 0), spread(values(results, case, server, "p99_us"), 0),
                         "-" if calls is None else f"{calls:.2f}", "-" if allocations is None else f"{allocations:.2f}",
                         f"{statistics.median(values(results, case, server, 'resident_kib')):.0f}"])
    parts.append(grid(rows))
    parts.append("ue-proxy alone, 64 outstanding, us per message:")
    rows = [["direction", "us per message"]]
    rows += [[name, spread(numbers)] for name, numbers in results["directions"].items()]
    rows += [[f"{name} open connections, TCP", spread(numbers)] for name, numbers in results["connections"].items()]
    rows += [[f"{name.split(', ')[0]} clients, {name.split(', ')[1]}, UDP", spread(numbers)]
             for name, numbers in results["clients"].items()]
    parts.append(grid(rows))
    rows = [["", *SERVERS[:2]]]
    rows.append(["exec to first answer, ms", *[spread(results["first_answer_ms"][server]) for server in SERVERS[:2]]])
    rows.append(["stripped program, KiB",
                 *[f"{results['program_bytes'][server] / 1024:.0f}" for server in SERVERS[:2]]])
    parts.append(grid(rows))
    rows = [["target", "found", "limit", ""]]
    rows += [[what, f"{number:.2f}", f"{'at most' if limit > 0 else 'at least'} {abs(limit):g}", "met" if met else "MISSED"]
             for what, number, limit, met in targets(results)]
    parts.append(grid(rows))
    return "\n\n".join(parts)


def plot(results):
    """Processor time per forwarded message: a bar for each server in each case, the quartiles as a whisker."""
    cases = list(results["cases"])
    left, top, height, bar, gap = 60, 50, 260, 34, 46
    group = bar * len(SERVERS) + gap
    width = left + group * len(cases) + 20
    highest = max(max(values(results, case, server, "us_per_message")) for case in cases for server in SERVERS)
    step = next(s for s in (0.5, 1, 2, 5, 10, 20, 50, 100, 1000, 1e9) if highest / s <= 8)
    scale = height / (step * (int(highest / step) + 1))

    def y(number):
        return top + height - number * scale

    out = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{top + height + 60}" font-family="sans-serif" '
           'font-size="12">', '<rect width="100%" height="100%" fill="white"/>',
           f'<text x="{left}" y="20" font-size="14">Processor time per forwarded message, us</text>']
    for number, server in enumerate(SERVERS):
        x = left + number * 110
        out.append(f'<rect x="{x}" y="28" width="12" height="12" fill="{COLOURS[server]}"/>'
                   f'<text x="{x + 17}" y="38">{server}</text>')
    for line in range(int(highest / step) + 2):
        at = y(line * step)
        out.append(f'<line x1="{left}" y1="{at:.1f}" x2="{width - 20}" y2="{at:.1f}" stroke="#ddd"/>'
                   f'<text x="{left - 8}" y="{at + 4:.1f}" text-anchor="end">{line * step:g}</text>')
    for place, case in enumerate(cases):
        for number, server in enumerate(SERVERS):
            numbers = values(results, case, server, "us_per_message")
            median = statistics.median(numbers)
            low, high = (min(numbers), max(numbers)) if len(numbers) < 4 else statistics.quantiles(numbers, n=4)[::2]
            x = left + gap / 2 + place * group + number * bar
            middle = x + bar / 2 - 2
            out.append(f'<rect x="{x:.1f}" y="{y(median):.1f}" width="{bar - 4}" height="{median * scale:.1f}" '
                       f'fill="{COLOURS[server]}"/>'
                       f'<line x1="{middle:.1f}" y1="{y(low):.1f}" x2="{middle:.1f}" y2="{y(high):.1f}" stroke="black"/>'
                       f'<text x="{middle:.1f}" y="{y(high) - 5:.1f}" text-anchor="middle" font-size="10">{median:.1f}</text>')
        out.append(f'<text x="{left + place * group + group / 2:.1f}" y="{top + height + 20}" text-anchor="middle">{case}</text>')
    machine = results["machine"]
    out.append(f'<text x="{left}" y="{top + height + 45}" fill="#666" font-size="11">{results["repetitions"]} repetitions, '
               f'{machine["processors"]} processors, {machine["when"]}</text></svg>\n')
    return "\n".join(out)
