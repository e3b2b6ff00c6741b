# Capacity table, entries in table order: cap INDEX CPU PPS AVG_PPS BPS.
# CPU 2 is loaded (pps below 8000); gold CPUs 5 and 4 are listed first.
cap 0 0 61000 61000 1000
cap 1 1 62000 62000 1001
cap 2 2 5000 63000 1002
cap 3 3 64000 64000 1003
cap 4 5 150000 150000 1005
cap 5 4 140000 140000 1004
cap 6 6 30000 30000 1006
cap 7 7 170000 170000 1007
# Gold flows: gold HASH CPU RX_PPS AVG_PPS RX_BPS. Only 0xa11ce fits a silver
# CPU; 0xc0c0 is the second flow of CPU 6 and fits CPU 5.
gold b0b0 6 50000 45000 0
gold a11ce 5 12000 10000 0
gold c0c0 6 55000 50000 0
# Slow-start flows: one fast, one steady.
ss f457 3 30000 28000 400000000
ss 6006 1 9000 8000 100000000
# The first move is refused.
code sugg -22 1
# Processes: proc PID TX_BPS BOOST_REMAINING_MS.
proc 4242 600000000 0
proc 77 400000000 0
proc 99 900000000 5000
proc 88 500000000 0
proc 55 700000000 1000
stamp 1700000000
