#  Tests of com/olklib3. Each program wraps only what its tests make fail.
