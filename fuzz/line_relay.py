# A relay between the daemon and a meter simulator, for recording seed inputs:
# line_relay.py METER_PTY LINK OUT. The daemon opens LINK (a new pseudo-
# terminal), every byte is passed on both ways, the meter's bytes go to OUT.
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
