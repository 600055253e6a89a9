"""Names of the agent's objects that the daemon asks for: the MIB must have every one exactly."""

# Asked as instance 0.
SCALARS = """
    agentVersion bspVersion custGatewayId firewallDoSPreventionBurstLimit
    firewallDoSPreventionEnabled firewallDoSPreventionPerMinLimit firewallEnabled
    firewallPingBurstLimit firewallPingEnabled firewallPingLimitEnabled firewallPingPerMinLimit
    firewallSshEnabled firewallUpdateExecute getAvailableBspUpgrade getAvailableLocalBspUpgrade
    gpsAltitude gpsLatitude gpsLongitude hmAlarmDescriptionId hmAlarmDescriptionText
    hmFaultDescriptionId hmFaultDescriptionText installStart installableSwListCount lumoReset
    moduleName moduleProductCode moduleRevision moduleSerialNumber networkCellularAvailable
    networkConnectionTestPort networkConnectionTestType networkEthernetAvailable networkFallback
    networkOpticalAvailable networkPingIp networkPingServer networkPreferencesExecute
    networkPreferred numofAntennas packageToInstall packageToUpgrade radioPropertiesRxMax
    radioPropertiesRxMin radioRxDbfsToDbmAnt0 radioRxDbfsToDbmAnt1 radioStatisticsNoMatch
    radioStatisticsNumRxPackets radioStatisticsNumTxPackets radioStatisticsResetCounters
    radioStatisticsRxCrcErrPackets radioStatisticsRxCrcOkPackets radioStatisticsRxFineTimestamp
    radioStatisticsRxNoFineTimestamp spmBatteryCapacity spmBatteryCurrent spmBatteryPower
    spmBatteryTemperature spmBatteryVoltage spmChargerChargingState spmChargerInputCurrent
    spmChargerInputPower spmChargerInputVoltage spmChargerOutputCurrent spmChargerOutputPower
    spmChargerOutputVoltage spmChargerSolarState spmDataCollectingPeriod spmDataTimestamp
    spmLoadCurrent spmLoadPower swBackupDescription swBackupExecute swBakResStatus
    swRestorePointExecute swRestorePointSelected swVerCount swVerType upgradableListCount
    upgradeBspStatus upgradeServerListStatus upgradeStart utilConfigurationFileContents
    utilConfigurationFileSelect utilPingCount utilPingDestination utilPingExecute
    utilPingReceivedCount utilSpectralScanAntenna utilSpectralScanExecute
    utilSpectralScanNum125kChan utilSpectralScanNum500kChan utilSpectralScanProgress
    utilSpectralScanResultsDataBlob utilSpectralScanSamplePeriod utilSpectralScanStartFreq125k
    utilSpectralScanStartFreq500k utilSpectralScanStepFreq125k utilSpectralScanStepFreq500k
    utilSpectrumAnalyzerAntenna utilSpectrumAnalyzerBinSpacingkHz utilSpectrumAnalyzerOutputBlob
    utilSpectrumAnalyzerSampleCount utilSpectrumAnalyzerSamplePeriod
    utilSpectrumAnalyzerStartFrequencykHz utilSpectrumAnalyzerStopFrequencykHz wmActiveBandClass
    wmActiveChannel wmAddApn wmAddPdpProfile wmApnLastOperationStatus wmApnName wmAuthentication
    wmBootRevisions wmBytesReceived wmBytesTransferred wmCallStatus wmCellId wmCurrentRXRate
    wmCurrentTxRate wmDataBearer wmDataCapabilities wmDeviceState wmDormancyStatus wmEcio
    wmEsnNumber wmFwRevisions wmFwUpdateExecute wmFwUpdatePass wmFwUpdateUrl wmFwUpdateUser
    wmHomeNetwork wmHwRevision wmImeiNumber wmImsi wmIo wmIpAddress wmLuRejectCause wmManufacturer
    wmMaxRxRate wmMaxTxRate wmMccCode wmMeidNumber wmMncCode wmMncMccOp wmMncMccOpStatus
    wmMncMccTotal wmModelId wmModifyPdpProfile wmPdpLastOperationStatus wmPdpProfileCount wmPdpType
    wmPdpWorkingProfile wmPriRevisions wmPrimaryDNS wmPrlPreference wmPrlVersion wmProfileName
    wmPublicIPAddr wmPublicPhoneNr wmRadioInterface wmReadPdpProfile wmRemoveApn wmRemovePdpProfile
    wmRoamingStatus wmRsrq wmSecondaryDNS wmSessionState wmSignalStrength wmSimPinCurrentPin
    wmSimPinModify wmSimPinNewPin wmSimPinOpStatus wmSimPinSet wmSimSlot1Status wmSimStatus wmSinr
    wmUserName
""".split()

# Asked with the index of a row, or as the root of a walk.
COLUMNS = """
    firewallFiltersChain firewallFiltersDescription firewallFiltersDstAddr
    firewallFiltersDstInterface firewallFiltersDstMask firewallFiltersDstPort firewallFiltersEnabled
    firewallFiltersName firewallFiltersProtocol firewallFiltersRemoveFilter firewallFiltersSrcAddr
    firewallFiltersSrcInterface firewallFiltersSrcMac firewallFiltersSrcMask firewallFiltersSrcPort
    firewallFiltersTarget hmAlarmCurrentStateId hmAlarmCurrentStateSeverity hmAlarmCurrentStateState
    hmFaultCurrentStateId hmFaultCurrentStateSeverity hmFaultCurrentStateState ifDescr ifIndex
    installableSwListComponentName installableSwListComponentVersion ipAdEntAddr ipAdEntIfIndex
    swRestorePointDate swRestorePointDescription upgradableListComponentName
    upgradableListComponentNewVersion upgradableListComponentOldVersion
    upgradableListComponentSpecial upgradeServerListAddress upgradeServerListName
    upgradeServerListType wmApn wmApnConnectionType wmApnLocalIndex wmMcc wmMnc wmNetworkDescription
    wmNetworkInUse wmPdpApnName wmPdpAuthType wmPdpCid wmPdpConnectionType wmPdpPassword
    wmPdpProfileName wmPdpUserName
""".split()
