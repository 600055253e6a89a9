"""Every command of a gateway with its parameters, in the order of the gateway's own table."""

from __future__ import annotations

import json
from dataclasses import dataclass
from typing import Any, Callable


def boolean(text: str) -> bool:
    if text not in ("true", "false"):
        raise ValueError(text)
    return text == "true"


KINDS: dict[str, Callable[[str], Any]] = {"text": str, "integer": int, "boolean": boolean, "json": json.loads}


@dataclass(frozen=True)
class Param:
    name: str
    kind: str = "text"
    required: bool = True
    beside: bool = False  # stands beside "params" in the request, not in it

    @property
    def usage(self) -> str:
        shown = f"--{self.name} {self.kind.upper()}"
        return shown if self.required else f"[{shown}]"


@dataclass(frozen=True)
class Command:
    name: str
    role: str
    params: tuple[Param, ...] = ()
    bare: str = ""  # kind of a single value that stands for "params" as a whole
    late: bool = False  # a second answer follows on a topic of its own

    @property
    def usage(self) -> str:
        parts = [self.name, *(param.usage for param in self.params)]
        return " ".join([*parts, self.bare.upper()] if self.bare else parts)


def text(name: str, required: bool = True) -> Param:
    return Param(name, "text", required)


def integer(name: str, required: bool = True, beside: bool = False) -> Param:
    return Param(name, "integer", required, beside)


def flag(name: str, required: bool = True, beside: bool = False) -> Param:
    return Param(name, "boolean", required, beside)


def value(name: str) -> Param:
    return Param(name, "json")


def integers(*names: str) -> tuple[Param, ...]:
    return tuple(integer(name) for name in names)


COMMANDS = (
    Command("ping", "ping a host through the agent", (text("destination"), integer("packetsCount"))),
    Command("reboot", "reboot the gateway, after five seconds"),
    Command(
        "reverseSsh",
        "open a reverse SSH tunnel",
        (text("username"), text("password"), text("sshHost"), integer("sshRevPort"), integer("sshPort")),
    ),
    Command("stopReverseSsh", "close the tunnel"),
    Command("getPublicKey", "the gateway's SSH public key"),
    Command("getGatewayInfo", "module, serial number, interfaces"),
    Command("getBackups", "restore points"),
    Command("createBackup", "make a restore point", (text("description"),)),
    Command("restoreBackup", "go back to a restore point", (integer("index"),)),
    Command("getRadioStatistics", "packet counters"),
    Command("resetRadioStatisticsCounters", "set the packet counters to 0"),
    Command("getGpsCoordinates", "the position"),
    Command("getSoftwareVersions", "versions of one kind", (integer("verType"),)),
    Command("getUpgradableSoftware", "packages with a newer version"),
    Command("getInstallableSoftware", "packages on offer"),
    Command("upgradeSoftware", "upgrade a package", (text("packageToUpgrade"),)),
    Command("installSoftware", "install a package", (text("packageToInstall"),)),
    Command("getInstallStatus", "progress of an installation"),
    Command("getUpgradeStatus", "progress of an upgrade"),
    Command("getLastInstallUpgradeStatus", "the last of both, and its progress"),
    Command("getBspStatus", "progress of a BSP upgrade, as a number"),
    Command("getWmDeviceInformation", "the modem's identity"),
    Command("getWmHomeNetworkBranch", "the modem's home network"),
    Command("getWmRfInformation", "the modem's radio"),
    Command("getWmActiveProfileParameters", "the data profile in use"),
    Command("getWmCallStatistics", "the modem's counters"),
    Command("getWmApns", "access points"),
    Command("addWmApn", "add an access point", (text("name"),)),
    Command("updateWmApn", "rename an access point", (text("name"), integer("idx"))),
    Command("deleteWmApn", "remove an access point, by its index", bare="integer"),
    Command("getWmStatusApn", "the last operation on access points"),
    Command("getWmPDP_Profiles", "data profiles", late=True),
    Command("addWmPDP_Profiles", "add data profiles", (value("newPDPs"),), late=True),
    Command("modifyWmPDP_Profiles", "change data profiles", (value("existingPDPs"),), late=True),
    Command("removeWmPDP_Profiles", "remove data profiles", (value("PDP_cids"),), late=True),
    Command(
        "setSpectrumAnalyzerParams",
        "set up the spectrum analyser",
        integers("samplePeriod", "sampleCount", "startFrequencykHz", "stopFrequencykHz", "binSpacingkHz"),
    ),
    Command("getSpectrumAnalyzerOutput", "samples of an antenna", (integer("antenna"),)),
    Command("getConnectivityTypes", "available uplinks"),
    Command(
        "setPreferredFallbackConnectivityType",
        "choose the uplinks",
        integers("preferredIdx", "fallbackIdx"),
    ),
    Command(
        "executeSpectralScan",
        "start a spectral scan",
        integers(
            "samplePeriod",
            "num125kChan",
            "startFreq125k",
            "stepFreq125k",
            "num500kChan",
            "startFreq500k",
            "stepFreq500k",
            "antenna",
        ),
    ),
    Command("getAntennasCount", "number of antennas"),
    Command("getSpectralScanProgress", "progress of the scan"),
    Command("getSpectralScanParams", "the scan's parameters"),
    Command("getSpectralScanResults", "the scan's samples"),
    Command("getFirewallConfiguration", "the firewall"),
    Command(
        "setFirewallConfiguration",
        "change the firewall",
        (flag("enabled"), value("doSPrevention"), value("ssh"), value("ping"), value("filters")),
    ),
    Command(
        "setPreferredPingIpAddress",
        "target of the connectivity test",
        (text("ipAddr"), text("connectionType", False), integer("connectionPort", False)),
    ),
    Command("getPreferredPingIpAddress", "that target"),
    Command(
        "fileUploadStart",
        "open an upload",
        (flag("isModemFw"), text("name"), *integers("size", "b64ChunkLength", "b64TotalLength")),
    ),
    Command("fileUploadChunk", "one chunk in base64", (text("data"),)),
    Command("fileUploadStop", "put the file in its place", (flag("decompress"),)),
    Command("getWmNetworkInfo", "operators in reach"),
    Command("setWmPreferredNetwork", "choose an operator", integers("mcc", "mnc")),
    Command("fopsScanDir", "list a folder", (text("path"),)),
    Command(
        "fopsStreamStart",
        "stream a file to a URL",
        (text("url"), text("path"), integer("offset"), integer("size")),
    ),
    Command("fopsStreamStop", "end it", (integer("xferId"),)),
    Command("fopsFetchStart", "fetch a file from a URL", (text("path"), text("url"))),
    Command("fopsFetchStop", "end it", (integer("xferId"),)),
    Command("fopsExecuteStart", "run a script", (text("path"), text("exeToken"))),
    Command("fopsExecuteStop", "end it", (integer("exeId"),)),
    Command("logRetrieveStart", "copy logs for retrieval", (value("requiredFiles"),)),
    Command("logRetrieveStop", "remove the copies"),
    Command("getSimStatus", "state of a SIM", (integer("slot", False),)),
    Command(
        "upgradeBspLocal",
        "upgrade the BSP",
        (integer("delay", False, beside=True), flag("force", False, beside=True)),
        late=True,
    ),
    Command("getAvailableBspUpgrade", "the BSP on offer", (flag("local", False),)),
    Command("getBspStatusString", "progress of a BSP upgrade, in words"),
    Command("getCurrentBspVersion", "the running BSP"),
)
