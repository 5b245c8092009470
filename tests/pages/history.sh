#!/usr/bin/env bash
# history.sh LAST: prints metrics of db1 to db3 in the OpenMetrics format, for a week less an hour, up to LAST (seconds
# since the epoch). db1 had an error, db2 was down, db3 had "prevent".
set -euo pipefail
awk -v last="$1" '
    function sample(name, labels, host, value) {
        line[name] = line[name] sprintf("%s{%sinstance=\"db%d:9980\",job=\"sched\",rack=\"7\"} %d %d\n",
            name, labels, host, value, t)
    }
    BEGIN {
        for (t = last - 7 * 86400 + 3600; t <= last; t += 300) {
            age = (last - t) / 86400 # days
            for (host = 1; host <= 3; host++) {
                down = host == 2 && age < 4.2 && age > 3.9
                sample("sched_up", "", host, !down)
                if (down) continue
                sample("sched_condition", "name=\"error\",", host, host == 1 && age < 5.5 && age > 4.6)
                sample("sched_condition", "name=\"prevent\",", host, host == 3 && age < 2.5 && age > 1)
                errors[host] += host == 1 && age < 5.5 && age > 5.48
                infos[host] += (last - t) / 300 % (17 + 5 * host) == 5
                sample("sched_messages_total", "severity=\"error\",", host, errors[host])
                sample("sched_messages_total", "severity=\"info\",", host, infos[host])
            }
        }
        printf "# TYPE sched_up gauge\n%s# TYPE sched_condition gauge\n%s", line["sched_up"], line["sched_condition"]
        printf "# TYPE sched_messages counter\n%s# EOF\n", line["sched_messages_total"]
    }'
