"""The simulated wave of reconnects keeps to the daemon's waits and to the server's limits."""
import math
import re
import sys
from dataclasses import replace

import pytest

from harness.bridge import REPOSITORY

sys.path.append(str(REPOSITORY / "bench"))

from fleet_wave import (  # noqa: E402
    CONNECT_LIMIT_S,
    CONNECT_S,
    REFUSED_S,
    RESTART_S,
    RETRY_S,
    STEP_S,
    STOP_S,
    TICK_S,
    Scenario,
    first_attempt_of_age,
    simulate,
)

FLEET = Scenario(2000)
PATIENCE_S = CONNECT_LIMIT_S + RETRY_S


@pytest.mark.parametrize("interval_s", [30.0, 300.0])
def test_without_a_limit_gateways_spread_over_tick_and_interval(interval_s: float) -> None:
    wave = simulate(replace(FLEET, interval_s=interval_s))
    soonest = RESTART_S + STOP_S + CONNECT_S
    latest = soonest + TICK_S + interval_s + STEP_S
    assert soonest <= wave.connected[0] <= soonest + TICK_S
    assert latest - TICK_S <= wave.connected[-1] <= latest
    assert sum(wave.attempts) == FLEET.gateways
    assert wave.time_of(0.5) == pytest.approx((soonest + latest) / 2, abs=interval_s / 30)


def test_a_server_that_is_away_is_tried_every_ten_seconds() -> None:
    away = 200.0
    wave = simulate(replace(FLEET, down_s=away), first_attempts=[50.0] * FLEET.gateways)
    tries = math.ceil((away - 50.0) / (RETRY_S + REFUSED_S)) + 1
    assert sum(wave.attempts) == tries * FLEET.gateways
    assert away <= wave.connected[0] <= wave.connected[-1] <= away + RETRY_S + REFUSED_S + 1


def test_a_server_takes_no_more_than_it_can() -> None:
    rate = 20.0
    wave = simulate(replace(FLEET, accepts=rate, queue=50))
    assert len(wave.connected) == FLEET.gateways
    gaps = zip(wave.connected, wave.connected[int(rate) + 1 :])
    assert min(later - sooner for sooner, later in gaps) >= 1 - STEP_S * 1.5
    assert wave.time_of(1.0) >= FLEET.gateways / rate


def test_a_gateway_that_waits_in_vain_comes_again() -> None:
    wave = simulate(replace(FLEET, gateways=3, accepts=0.02), first_attempts=[20.0, 20.1, 20.2])
    assert wave.attempts[20] == 3
    assert sum(wave.attempts[int(20.1 + PATIENCE_S) : int(20.3 + PATIENCE_S) + 1]) == 2


@pytest.mark.parametrize("queue, recovers", [(50.0, True), (math.inf, False)])
def test_a_slow_server_recovers_only_when_few_wait(queue: float, recovers: bool) -> None:
    too_slow = 0.4 * FLEET.gateways / PATIENCE_S
    wave = simulate(replace(FLEET, accepts=too_slow, queue=queue))
    assert (len(wave.connected) == FLEET.gateways) == recovers
    assert (wave.wasted == 0) == recovers


def test_an_even_flow_of_refusals_does_not_lose_a_gateway() -> None:
    wave = simulate(replace(FLEET, accepts=30.0, queue=50, refuses_above=30.0))
    assert wave.time_of(1.0) < 2 * FLEET.gateways / 30.0
    assert wave.wasted == 0


def test_a_seed_gives_one_wave() -> None:
    assert simulate(FLEET, seed=7) == simulate(FLEET, seed=7)
    assert simulate(FLEET, seed=7).connected != simulate(FLEET, seed=8).connected


@pytest.mark.parametrize(
    "age, interval, until_stopped",
    [(5.0, 33.0, 28.0), (12.0, 33.0, 21.0), (34.0, 33.0, 32.0), (95.0, 33.0, 37.0)],
)
def test_a_young_gateway_stops_at_its_next_look_after_its_next_tick(
    age: float, interval: float, until_stopped: float
) -> None:
    assert first_attempt_of_age(age, interval) == pytest.approx(until_stopped + STOP_S + RESTART_S)


def test_the_waits_are_those_of_the_supervisor_loop() -> None:
    source = (REPOSITORY / "src/app/main_bridge.cpp").read_text()
    coded = dict(re.findall(r"^static constexpr uint32_t (\w+_S) = (\d+);", source, re.MULTILINE))
    assert coded == {"TICK_S": f"{TICK_S:g}", "RETRY_S": f"{RETRY_S:g}", "RESTART_S": f"{RESTART_S:g}"}
