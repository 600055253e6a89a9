"""Messages as forwarders and network servers send them; a test changes what it is about."""
from typing import Any

Json = dict[str, Any]

DATA = "QAQDAgGAAQABp/7d9w=="  # 13 bytes
DATA_ESCAPED = "QAQDAgGAAQABp\\/7d9w=="  # as json-c prints it

OMIT = object()


def changed(base: Json, changes: Json) -> Json:
    """A value of OMIT takes its key out."""
    return {key: value for key, value in {**base, **changes}.items() if value is not OMIT}


def rxpk_v2(**changes: Any) -> Json:
    """The signal's values in the element itself."""
    return changed({"tmst": 3512348611, "chan": 2, "rfch": 1, "freq": 868.3, "stat": 1, "modu": "LORA",
                    "datr": "SF7BW125", "codr": "4/5", "rssi": -57, "lsnr": 9.8, "size": 13, "data": DATA},
                   changes)


def rsig(**changes: Any) -> Json:
    return changed({"ant": 3, "chan": 5, "rssic": -91, "lsnr": -7.5}, changes)


def rxpk_v1(**changes: Any) -> Json:
    """The signal's values in the array `rsig`."""
    return changed({"tmst": 3512348611, "rfch": 1, "freq": 868.3, "stat": 1, "modu": "LORA",
                    "datr": "SF7BW125", "codr": "4/5", "size": 13, "data": DATA, "rsig": [rsig()]}, changes)


def stat(**changes: Any) -> Json:
    return changed({"time": "2024-05-06 07:08:09 GMT", "lati": 46.24, "long": 3.2523, "alti": 145, "rxnb": 2,
                    "rxok": 1, "rxfw": 1, "ackr": 100.0, "dwnb": 4, "txnb": 3}, changes)


def native_tx_info(**changes: Any) -> Json:
    return changed({"codeRate": "4/5", "dataRate": {"bandwidth": 125, "modulation": "LORA", "spreadFactor": 9},
                    "frequency": 868100000, "immediately": False, "mac": "0102030405abcdef", "power": 14,
                    "timestamp": 3513348611}, changes)


def native_downlink(data: str = DATA, **tx_info: Any) -> Json:
    return {"phyPayload": data, "txInfo": native_tx_info(**tx_info)}


def v2_downlink(data: str = DATA, token: Any = 4660, **tx_info: Any) -> Json:
    return changed({"phyPayload": data, "token": token, "txInfo": native_tx_info(**tx_info)}, {})


def v3_tx_info(**changes: Any) -> Json:
    return changed({"gatewayID": "AQIDBAWrze8=", "frequency": 868100000, "power": 14, "modulation": "LORA",
                    "loRaModulationInfo": {"bandwidth": 125, "spreadingFactor": 9, "codeRate": "4/5",
                                           "polarizationInversion": True},
                    "board": 0, "antenna": 0, "timing": "IMMEDIATELY"}, changes)


def v3_downlink(data: str = DATA, token: Any = 4660, **tx_info: Any) -> Json:
    return changed({"phyPayload": data, "token": token, "txInfo": v3_tx_info(**tx_info)}, {})


DOWNLINKS = {"native": native_downlink, "chirpstack_v2": v2_downlink, "chirpstack_v3": v3_downlink}
