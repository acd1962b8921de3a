"""Scenarios of the wall clock: steps of many sizes, other eras, a clock that is too slow or too fast."""

from world import DNS, RDB, utc

ADDRESS, OTHER = "2001:db8::1", "2001:db8::2"


def cycled(scenario):
    """Starts the service, connects both servers and runs until the second cycle, 10 s after the start."""
    scenario.start()
    scenario.up(RDB, DNS)
    scenario.run(10)


def test_6201_a_clock_step_moves_the_next_cycle(new_scenario):
    """The clock is stepped immediately after a cycle. The test checks after how many seconds the next cycle runs."""
    held_back = {0: 10, -1: 11, -8: 18, -9: 19, 1: 9, 8: 2, 9: 1}
    at_once = dict.fromkeys([-10, -11, 10, 11, 599, -599, 600, -600], 0.1)
    wait_after = held_back | at_once
    scenario = new_scenario(addresses=[ADDRESS])
    cycled(scenario)
    for number, (step, wait) in enumerate(wait_after.items()):
        (scenario.remove if number % 2 else scenario.add)(OTHER)
        scenario.step(step)
        before = len(scenario.puts())
        scenario.run(wait - 0.1)
        assert len(scenario.puts()) == before, step
        scenario.run(0.1)
        assert len(scenario.puts()) == before + 1, step


def test_6202_a_clock_step_that_makes_the_put_600_seconds_old_repeats_only_the_put(new_scenario):
    scenario = new_scenario(addresses=[ADDRESS])
    cycled(scenario)
    scenario.run(295 - 10)
    scenario.up(DNS)  # the request is sent at 300 s, the put was at 0.1 s
    scenario.run(10)
    assert (scenario.put_times(), scenario.request_times()) == ([0.1], [0.1, 300.0])
    scenario.step(295)
    scenario.run(0.1)
    assert (scenario.put_times(), scenario.request_times()) == ([0.1, 600.1], [0.1, 300.0])


def test_6203_repeated_steps_back_of_nine_seconds_delay_every_cycle(new_scenario):
    hour = 3600
    scenario = new_scenario(addresses=[ADDRESS])
    cycled(scenario)
    scenario.add(OTHER)
    for _ in range(hour // 9):
        scenario.step(-9)
        scenario.run(9)
    assert len(scenario.puts()) == 1
    scenario.run(10)
    assert len(scenario.puts()) == 2


def test_6204_while_the_clock_stands_still_no_cycle_runs(new_scenario):
    scenario = new_scenario(addresses=[ADDRESS])
    cycled(scenario)
    scenario.add(OTHER)
    for _ in range(600):
        scenario.run(1)
        scenario.step(-1)
    assert len(scenario.puts()) == len(scenario.requests()) == 1


def test_6205_a_clock_that_runs_backwards_starts_a_cycle_every_ten_seconds(new_scenario):
    scenario = new_scenario(addresses=[ADDRESS])
    cycled(scenario)
    for number in range(60):
        (scenario.remove if number % 2 else scenario.add)(OTHER)
        scenario.step(-20)
        scenario.run(10)
    assert len(scenario.puts()) == len(scenario.requests()) == 61


def test_6206_with_a_clock_of_eleven_times_the_speed_repetitions_are_ten_times_as_frequent(new_scenario):
    real_seconds = 600
    scenario = new_scenario(addresses=[ADDRESS])
    scenario.start()
    scenario.up(RDB, DNS)
    for _ in range(real_seconds):
        scenario.step(10)
        scenario.run(1)
    assert len(scenario.puts()) == len(scenario.requests()) == 1 + real_seconds * 11 // 605


def test_6207_a_step_to_1970_and_the_step_back_each_repeat_put_and_request(new_scenario):
    scenario = new_scenario(addresses=[ADDRESS])
    cycled(scenario)
    now = scenario.wall_ns() / 1e9
    scenario.set_clock(utc(1970, 1, 2))
    scenario.run(0.1)
    scenario.run(100)
    scenario.set_clock(now + 100)
    scenario.run(100)
    assert len(scenario.puts()) == len(scenario.requests()) == 3
    assert scenario.puts()[1][0] < -1_700_000_000


def test_6208_a_step_beyond_2038_and_the_step_back_each_repeat_put_and_request(new_scenario):
    scenario = new_scenario(addresses=[ADDRESS])
    cycled(scenario)
    now = scenario.wall_ns() / 1e9
    for year in (2039, 2107, 2200):
        scenario.set_clock(utc(year, 1, 1))
        scenario.run(300)
    scenario.set_clock(now + 900)
    scenario.run(300)
    assert len(scenario.puts()) == len(scenario.requests()) == 1 + 3 + 1


def test_6209_32_bit_time_limits_have_no_effect(new_scenario):
    """The service runs its cycles before and after the last second of a signed and of an unsigned 32-bit count."""
    for last_second in (2**31 - 1, 2**32 - 1):
        scenario = new_scenario(addresses=[ADDRESS], wall_start_ns=(last_second - 305) * 10**9)
        scenario.start()
        scenario.up(RDB, DNS)
        for number in range(62):
            (scenario.remove if number % 2 else scenario.add)(OTHER)
            scenario.run(10)
        assert scenario.put_times() == [0.1] + [10.0 * number for number in range(2, 63)]


def test_6210_a_step_that_is_undone_before_the_next_pass_has_no_effect(new_scenario):
    day = 86_400
    scenario = new_scenario(addresses=[ADDRESS])
    cycled(scenario)
    scenario.step(-day)
    scenario.step(day)
    scenario.run(5)
    assert len(scenario.puts()) == 1
    scenario.step(-day)
    scenario.run(0.1)
    scenario.step(day)
    scenario.run(0.1)
    assert len(scenario.puts()) == len(scenario.requests()) == 3


def test_6211_a_step_without_a_server_takes_effect_when_a_server_connects(new_scenario):
    scenario = new_scenario(addresses=[ADDRESS])
    cycled(scenario)
    scenario.down(RDB, DNS)
    for step in (-9, 9, -600, 600, 10):
        scenario.step(step)
        scenario.run(2)
    assert len(scenario.puts()) == 1
    scenario.up(RDB)
    scenario.run(0.1)
    assert scenario.put_times() == [0.1, 30.1]


def test_6212_fractions_of_a_second_are_ignored(new_scenario):
    """Ten seconds have passed when the count of whole seconds has increased by ten."""
    scenario = new_scenario(addresses=[ADDRESS], wall_start_ns=1_700_000_000_850_000_000)
    scenario.start()
    scenario.up(RDB)
    scenario.run(0.1)  # the clock is at 0.95 of a second
    scenario.add(OTHER)
    scenario.run(9.0)
    assert scenario.put_times() == [0.1]
    scenario.run(0.1)  # the clock is at 0.05 of a second, 9.1 s later
    assert scenario.put_times() == [0.1, 9.2]


def test_6213_a_step_of_599_seconds_repeats_nothing_and_a_step_of_600_repeats_both(new_scenario):
    near, far = (599, -599, 598, -10), (600, -600)
    scenario = new_scenario(addresses=[ADDRESS])
    scenario.start()
    scenario.up(RDB, DNS)
    scenario.run(0.1)
    for step in near:
        scenario.step(step)
        scenario.run(0.1)
        scenario.step(-step)
        scenario.run(0.1)
    assert len(scenario.puts()) == len(scenario.requests()) == 1
    for step in far:
        scenario.step(step)
        scenario.run(0.1)
        scenario.step(-step)
        scenario.run(0.1)
    assert len(scenario.puts()) == len(scenario.requests()) == 1 + 2 * len(far)
