# SPDX-License-Identifier: Apache-2.0
# Sits between the daemon and a meter simulator when seeds are recorded:
# makes a new pseudo-terminal, links LINK to its slave, passes every byte both
# ways and writes what the meter sent to OUT.
#   python3 fuzz/line_relay.py METER_PTY LINK OUT
import os, pty, select, sys, tty
meter_path, link, out = sys.argv[1:4]
master, slave = pty.openpty()
tty.setraw(slave)
os.symlink(os.ttyname(slave), link)
meter = os.open(meter_path, os.O_RDWR | os.O_NOCTTY)
tty.setraw(meter)
print("ready", flush=True)
with open(out, "wb") as rec:
    while True:
        ready, _, _ = select.select([master, meter], [], [])
        for fd in ready:
            try:
                data = os.read(fd, 4096)
            except OSError:
                continue
            if fd == master:
                os.write(meter, data)
            else:
                rec.write(data)
                rec.flush()
                os.write(master, data)
