"""The captures that pages are made of."""

import random

from capture import DOWN, REFUSED, UP, Capture, create, delete, message, provision, update

MANY = 100_000
HOSTILE = "</script><img src=x onerror=alert(1)>"
ENOTCONN = 107


def small(path):
    made = Capture()
    made.add(1, UP)
    made.said(1, message(0))
    made.said(1, create([(0x11, "port1/1"), (0x12, "port1/2")], 1))
    made.said(1, create([(0x13, "port2/1")], 0))
    made.add(2, UP)
    made.said(2, create([(0x21, "trunk1"), (0x22, HOSTILE)], 3))
    made.told(2, provision([0x21]), status=ENOTCONN)
    made.said(1, create([], 0))
    made.told(1, provision([0x11, 0x12]))
    made.add(3, REFUSED, status=22)
    made.said(1, message(99))
    made.said(1, update([0x12]), after=3_000_000_000)
    made.said(2, create([(0x23, "trunk2")], 1), lost=4)
    made.said(1, delete([0x11]))
    made.add(2, DOWN, status=104)
    made.add(1, DOWN)
    return made.write(path)


def large(path):
    made, any_of = Capture(), random.Random(7)
    for owner in range(1, 13):
        made.add(owner, UP)
    while made.count < MANY:
        owner, number = any_of.randint(1, 12), any_of.randint(1, 3000)
        acs = [(owner << 16 | number + i, f"port{owner}/{number + i}") for i in range(any_of.randint(1, 4))]
        numbers = [handle for handle, _ in acs]
        what = any_of.random()
        if what < 0.4:
            made.said(owner, create(acs, any_of.choice([0, 1, 2, 3])))
        elif what < 0.6:
            made.said(owner, update(numbers))
        elif what < 0.7:
            made.said(owner, delete(numbers))
        else:
            made.told(owner, provision(numbers), status=ENOTCONN if what > 0.99 else 0)
    return made.write(path)


def restarted(path):
    """A process is killed while a batch is open, and its client says everything to the next one."""
    made = Capture()
    made.add(1, UP)
    made.said(1, create([(0x11, "port1/1")], 1))
    made.start_again()
    made.add(1, UP)
    made.said(1, create([(0x11, "port1/1")], 1))
    made.said(1, create([(0x12, "port1/2")], 2))
    return made.write(path)


def beside(path):
    """Two processes that run at the same time."""
    made = Capture(interfaces=2)
    for interface in (0, 1):
        made.turn_to(interface)
        made.add(1, UP)
    for number in range(20):
        made.turn_to(number % 2)
        made.said(1, create([(0x11 + number, f"port1/{number}")], 3))
    return made.write(path)


def parts(first, second):
    """Of one capture."""
    made = Capture()
    made.add(1, UP)
    made.said(1, create([(0x11, "port1/1")], 1))
    made.write(first)
    made.cut()
    made.said(1, create([(0x12, "port1/2")], 2))
    made.write(second)


def strange(path):
    """More types than there are, and two links of one client."""
    made = Capture()
    made.add(1, UP, pid=77)
    for number in range(300):
        made.said(1, message(1000 + number), pid=77)
    made.add(1, DOWN, pid=77)
    made.add(9, UP, pid=77)
    made.said(9, create([(0x11, "port1/1")], 3), pid=77)
    return made.write(path)
