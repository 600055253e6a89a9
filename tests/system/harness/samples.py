"""Messages as forwarders and network servers send them; a test changes what it is about."""
from typing import Any, Callable

Json = dict[str, Any]

DATA = "QAQDAgGAAQABp/7d9w=="  # 13 bytes
DATA_ESCAPED = "QAQDAgGAAQABp\\/7d9w=="  # as json-c prints it


class Omit:
    def __repr__(self) -> str:
        return "OMIT"


OMIT = Omit()


def changed(base: Json, changes: Json) -> Json:
    """A value of OMIT takes its key out."""
    return {key: value for key, value in {**base, **changes}.items() if value is not OMIT}


def rxpk_v2(**changes: Any) -> Json:
    """The signal's values in the element itself."""
    return changed(
        {
            "tmst": 3512348611,
            "chan": 2,
            "rfch": 1,
            "freq": 868.3,
            "stat": 1,
            "modu": "LORA",
            "datr": "SF7BW125",
            "codr": "4/5",
            "rssi": -57,
            "lsnr": 9.8,
            "size": 13,
            "data": DATA,
        },
        changes,
    )


def rsig(**changes: Any) -> Json:
    return changed({"ant": 3, "chan": 5, "rssic": -91, "lsnr": -7.5}, changes)


def rxpk_v1(**changes: Any) -> Json:
    """The signal's values in the array `rsig`."""
    return changed(
        {
            "tmst": 3512348611,
            "rfch": 1,
            "freq": 868.3,
            "stat": 1,
            "modu": "LORA",
            "datr": "SF7BW125",
            "codr": "4/5",
            "size": 13,
            "data": DATA,
            "rsig": [rsig()],
        },
        changes,
    )


def stat(**changes: Any) -> Json:
    return changed(
        {
            "time": "2024-05-06 07:08:09 GMT",
            "lati": 46.24,
            "long": 3.2523,
            "alti": 145,
            "rxnb": 2,
            "rxok": 1,
            "rxfw": 1,
            "ackr": 100.0,
            "dwnb": 4,
            "txnb": 3,
        },
        changes,
    )


def native_tx_info(**changes: Any) -> Json:
    return changed(
        {
            "codeRate": "4/5",
            "dataRate": {"bandwidth": 125, "modulation": "LORA", "spreadFactor": 9},
            "frequency": 868100000,
            "immediately": False,
            "mac": "0102030405abcdef",
            "power": 14,
            "timestamp": 3513348611,
        },
        changes,
    )


def native_downlink(data: str = DATA, **tx_info: Any) -> Json:
    return {"phyPayload": data, "txInfo": native_tx_info(**tx_info)}


def v2_downlink(data: str = DATA, token: Any = 4660, **tx_info: Any) -> Json:
    return changed({"phyPayload": data, "token": token, "txInfo": native_tx_info(**tx_info)}, {})


def v3_tx_info(**changes: Any) -> Json:
    return changed(
        {
            "gatewayID": "AQIDBAWrze8=",
            "frequency": 868100000,
            "power": 14,
            "modulation": "LORA",
            "loRaModulationInfo": {
                "bandwidth": 125,
                "spreadingFactor": 9,
                "codeRate": "4/5",
                "polarizationInversion": True,
            },
            "board": 0,
            "antenna": 0,
            "timing": "IMMEDIATELY",
        },
        changes,
    )


def v3_downlink(data: str = DATA, token: Any = 4660, **tx_info: Any) -> Json:
    return changed({"phyPayload": data, "token": token, "txInfo": v3_tx_info(**tx_info)}, {})


DOWNLINKS: dict[str, Callable[..., Json]] = {"native": native_downlink, "chirpstack_v2": v2_downlink, "chirpstack_v3": v3_downlink}


LONGEST_TEXT = 4091  # of a downlink, as the packet forwarder gets it


def native_downlink_of_text_length(length: int = LONGEST_TEXT, start: str = "") -> Json:
    """Slashes take two characters in the text, so a payload within its limit makes a text of any length."""
    characters = 2047
    bare = (
        '{"txpk":{"imme":false,"tmst":3513348611,"freq":868.100000,"rfch":0,"powe":14,"modu":"LORA",'
        '"datr":"SF9BW125","codr":"4\\/5","ipol":true,"size":1535,"data":""}}'
    )
    slashes = length - len(bare) - characters
    return native_downlink(data=(start + "/" * slashes).ljust(characters, "A"))
