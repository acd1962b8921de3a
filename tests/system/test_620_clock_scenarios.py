"""Scenarios of the wall clock: steps of every size, other eras, a clock that is held back or hurried on."""

from world import DNS, RDB, utc

ADDRESS, OTHER = "2001:db8::1", "2001:db8::2"


def cycled(world):
    """Starts the service, brings both servers up and runs to the second cycle, 10 s after the start."""
    world.start()
    world.up(RDB, DNS)
    world.run(10)


def test_6201_a_step_moves_the_next_cycle_as_far_as_the_gate_says(new_world):
    """From a step right after a cycle to the next cycle, in seconds that pass."""
    held_back = {0: 10, -1: 11, -8: 18, -9: 19, 1: 9, 8: 2, 9: 1}
    at_once = dict.fromkeys([-10, -11, 10, 11, 599, -599, 600, -600], 0.1)
    wait_after = held_back | at_once
    world = new_world(addresses=[ADDRESS])
    cycled(world)
    for number, (step, wait) in enumerate(wait_after.items()):
        (world.remove if number % 2 else world.add)(OTHER)
        world.step(step)
        before = len(world.puts())
        world.run(wait - 0.1)
        assert len(world.puts()) == before, step
        world.run(0.1)
        assert len(world.puts()) == before + 1, step


def test_6202_a_step_makes_only_those_due_that_it_carries_over_600_seconds(new_world):
    world = new_world(addresses=[ADDRESS])
    cycled(world)
    world.run(295 - 10)
    world.up(DNS)  # the request at 300 s is 300 s younger than the put at 0.1 s
    world.run(10)
    assert (world.put_times(), world.request_times()) == ([0.1], [0.1, 300.0])
    world.step(295)
    world.run(0.1)
    assert (world.put_times(), world.request_times()) == ([0.1, 600.1], [0.1, 300.0])


def test_6203_a_clock_held_back_by_nine_seconds_again_and_again_holds_every_cycle_back(new_world):
    hour = 3600
    world = new_world(addresses=[ADDRESS])
    cycled(world)
    world.add(OTHER)
    for _ in range(hour // 9):
        world.step(-9)
        world.run(9)
    assert len(world.puts()) == 1
    world.run(10)
    assert len(world.puts()) == 2


def test_6204_a_clock_that_stands_still_lets_no_cycle_run(new_world):
    world = new_world(addresses=[ADDRESS])
    cycled(world)
    world.add(OTHER)
    for _ in range(600):
        world.run(1)
        world.step(-1)
    assert len(world.puts()) == len(world.requests()) == 1


def test_6205_a_clock_that_runs_backwards_opens_the_gate_every_ten_of_its_seconds(new_world):
    world = new_world(addresses=[ADDRESS])
    cycled(world)
    for number in range(60):
        (world.remove if number % 2 else world.add)(OTHER)
        world.step(-20)
        world.run(10)
    assert len(world.puts()) == len(world.requests()) == 61


def test_6206_a_clock_that_leaps_ten_seconds_each_second_repeats_by_its_own_seconds(new_world):
    real_seconds = 600
    world = new_world(addresses=[ADDRESS])
    world.start()
    world.up(RDB, DNS)
    for _ in range(real_seconds):
        world.step(10)
        world.run(1)
    assert len(world.puts()) == len(world.requests()) == 1 + real_seconds * 11 // 605


def test_6207_a_visit_to_1970_repeats_both_once_on_the_way_and_once_on_the_way_back(new_world):
    world = new_world(addresses=[ADDRESS])
    cycled(world)
    now = world.wall_ns() / 1e9
    world.set_clock(utc(1970, 1, 2))
    world.run(0.1)
    world.run(100)
    world.set_clock(now + 100)
    world.run(100)
    assert len(world.puts()) == len(world.requests()) == 3
    assert world.puts()[1][0] < -1_700_000_000


def test_6208_a_visit_to_the_years_after_2038_repeats_both_once_on_the_way_and_once_on_the_way_back(new_world):
    world = new_world(addresses=[ADDRESS])
    cycled(world)
    now = world.wall_ns() / 1e9
    for year in (2039, 2107, 2200):
        world.set_clock(utc(year, 1, 1))
        world.run(300)
    world.set_clock(now + 900)
    world.run(300)
    assert len(world.puts()) == len(world.requests()) == 1 + 3 + 1


def test_6209_the_seconds_of_2038_and_2106_pass_like_any_other(new_world):
    """The last second of a signed and of an unsigned 32-bit count, with a cycle every ten seconds across it."""
    for last_second in (2**31 - 1, 2**32 - 1):
        world = new_world(addresses=[ADDRESS], wall_start_ns=(last_second - 305) * 10**9)
        world.start()
        world.up(RDB, DNS)
        for number in range(62):
            (world.remove if number % 2 else world.add)(OTHER)
            world.run(10)
        assert world.put_times() == [0.1] + [10.0 * number for number in range(2, 63)]


def test_6210_a_clock_that_is_back_before_the_next_turn_was_never_away(new_world):
    day = 86_400
    world = new_world(addresses=[ADDRESS])
    cycled(world)
    world.step(-day)
    world.step(day)
    world.run(5)
    assert len(world.puts()) == 1
    world.step(-day)
    world.run(0.1)
    world.step(day)
    world.run(0.1)
    assert len(world.puts()) == len(world.requests()) == 3


def test_6211_a_step_while_no_server_is_up_counts_once_one_is(new_world):
    world = new_world(addresses=[ADDRESS])
    cycled(world)
    world.down(RDB, DNS)
    for step in (-9, 9, -600, 600, 10):
        world.step(step)
        world.run(2)
    assert len(world.puts()) == 1
    world.up(RDB)
    world.run(0.1)
    assert world.put_times() == [0.1, 30.1]


def test_6212_fractions_of_a_second_do_not_count(new_world):
    """Ten seconds have passed when the number of the second has grown by ten."""
    world = new_world(addresses=[ADDRESS], wall_start_ns=1_700_000_000_850_000_000)
    world.start()
    world.up(RDB)
    world.run(0.1)  # 0.95 of a second
    world.add(OTHER)
    world.run(9.0)
    assert world.put_times() == [0.1]
    world.run(0.1)  # 0.05 of a second, 9.1 s later
    assert world.put_times() == [0.1, 9.2]


def test_6213_an_excursion_of_599_seconds_repeats_nothing_and_one_of_600_everything_each_way(new_world):
    near, far = (599, -599, 598, -10), (600, -600)
    world = new_world(addresses=[ADDRESS])
    world.start()
    world.up(RDB, DNS)
    world.run(0.1)
    for step in near:
        world.step(step)
        world.run(0.1)
        world.step(-step)
        world.run(0.1)
    assert len(world.puts()) == len(world.requests()) == 1
    for step in far:
        world.step(step)
        world.run(0.1)
        world.step(-step)
        world.run(0.1)
    assert len(world.puts()) == len(world.requests()) == 1 + 2 * len(far)
