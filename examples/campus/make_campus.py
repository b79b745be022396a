#!/usr/bin/env python3
"""Writes an example campus as XML that `loom import` reads: every radio of every access point
(`radio_operation_tbl`), its band (`radio_band_tbl`) and its virtual access points (`vap_operational_config_tbl`).

    make_campus.py [FILE]

The same campus comes out each time; nothing is random. Channels, powers, rates and element data follow IEEE 802.11
and the FCC's rules for 2.4, 5 and 6 GHz. MAC addresses of access points are from the documentation range of
RFC 7042, BSSIDs are locally administered, addresses of hosts are from RFC 5737. Key material is made up here.
"""

import hashlib
import sys
from dataclasses import dataclass
from xml.sax.saxutils import escape

# ------------------------------------------------------------------------------------------------- the campus

# Building, floors, access points per floor, and whether they have a 6 GHz radio.
BUILDINGS = (
    ("library", 3, 4, True),
    ("engineering", 4, 3, True),
    ("science", 3, 3, True),
    ("student-centre", 2, 4, True),
    ("residence-north", 3, 2, False),
    ("administration", 2, 2, False),
)


@dataclass(frozen=True)
class AccessPoint:
    number: int  # from 1, over the whole campus
    building: str
    floor: int
    position: int  # on the floor, from 1
    has_6ghz: bool

    @property
    def name(self):
        return f"{self.building}-{self.floor}-{self.position:02}"

    @property
    def mac(self):
        return f"00:00:5e:00:53:{self.number:02x}"


def access_points():
    number = 0
    for building, floors, per_floor, has_6ghz in BUILDINGS:
        for floor in range(1, floors + 1):
            for position in range(1, per_floor + 1):
                number += 1
                yield AccessPoint(number, building, floor, position, has_6ghz)


# --------------------------------------------------------------------------------------------------- the bands

CODE_20_MHZ, CODE_40_MHZ, CODE_80_MHZ = 0, 1, 2  # chan_width of the schema is a plain code

# Supported rates in 500 kbit/s, the basic ones marked by the top bit (IEEE 802.11, Supported Rates element).
RATES_24 = (0x82, 0x84, 0x8B, 0x96, 12, 18, 24, 36, 48, 72, 96, 108)
RATES_OFDM = (0x8C, 18, 0x98, 36, 0xB0, 72, 96, 108, 0, 0, 0, 0)


@dataclass(frozen=True)
class Band:
    name: str
    radio_type: int  # 1: 2.4 GHz, 2: 5 GHz, 3: 6 GHz
    channels: tuple  # all that the radio may use
    plan: tuple  # what the channel plan of the campus deals out
    dfs: range  # channels with radar detection
    width: int
    highest_dbm: int
    streams: int
    rates: tuple
    antenna_gain: int  # in half dBi
    ht_cap_info: int
    vht_cap_info: tuple
    max_clients: int


BANDS = (
    Band("2.4 GHz", 1, tuple(range(1, 12)), (1, 6, 11), range(0), CODE_20_MHZ, 23, 4, RATES_24, 8,
         0x01AD, (0, 0, 0, 0), 100),
    Band("5 GHz", 2,
         tuple(range(36, 65, 4)) + tuple(range(100, 145, 4)) + tuple(range(149, 166, 4)),
         (36, 52, 100, 116, 132, 149, 44, 60, 108, 124, 157), range(52, 145), CODE_80_MHZ, 26, 4, RATES_OFDM, 10,
         0x09EF, (0xB2, 0x79, 0x8B, 0x33), 200),
    Band("6 GHz", 3, tuple(range(1, 234, 4)), tuple(range(5, 230, 16)), range(0), CODE_80_MHZ, 24, 4, RATES_OFDM, 12,
         0x0000, (0, 0, 0, 0), 200),
)


def center_of_80_mhz(channel):
    """Number of the centre of the 5 GHz block of four channels that holds the channel."""
    first = 36 if channel < 100 else 100 if channel < 149 else 149
    return first + (channel - first) // 16 * 16 + 6


def power_levels(highest_dbm, count=8):
    """Level 1 is the highest power; each level is 3 dB below the one before, down to 2 dBm."""
    return [dbm for dbm in (highest_dbm - 3 * step for step in range(count)) if dbm >= 2]


# ----------------------------------------------------------------------------------------------------- the WLANs

# RSN element (IEEE 802.11, 9.4.2.24): version 1, one group and one pairwise cipher (CCMP-128), key managements.
OUI = (0x00, 0x0F, 0xAC)
CCMP, BIP_CMAC = 4, 6
AKM_8021X, AKM_PSK, AKM_FT_8021X, AKM_SAE, AKM_FT_SAE, AKM_OWE = 1, 2, 3, 8, 9, 18
MFP_CAPABLE, MFP_REQUIRED = 0x80, 0x40


def rsn_element(key_managements, capabilities):
    body = [1, 0, *OUI, CCMP, 1, 0, *OUI, CCMP, len(key_managements), 0]
    for suite in key_managements:
        body += [*OUI, suite]
    body += [capabilities, 0]
    if capabilities & MFP_CAPABLE:
        body += [0, 0, *OUI, BIP_CMAC]  # no PMKIDs, group management cipher
    return (0x30, len(body), *body)


# WMM parameter element: version 1, U-APSD, then best effort, background, video, voice.
WME_ELEMENT = (0xDD, 0x18, 0x00, 0x50, 0xF2, 0x02, 0x01, 0x01, 0x80, 0x00, 0x03, 0xA4, 0x00, 0x00, 0x27, 0xA4, 0x00,
               0x00, 0x42, 0x43, 0x5E, 0x00, 0x62, 0x32, 0x2F, 0x00)
# Mobility domain element: identifier 0x5353, fast transition over the air.
MOBILITY_ELEMENT = (0x36, 0x03, 0x53, 0x53, 0x00)
CAPABILITY_ESS, CAPABILITY_PRIVACY, CAPABILITY_SHORT_SLOT = 0x0001, 0x0010, 0x0400


@dataclass(frozen=True)
class Wlan:
    wlan_id: int
    ssid: str
    interface: str
    dtim: int
    key_managements: tuple  # on 2.4 and 5 GHz; 6 GHz allows protected management frames only
    key_managements_6ghz: tuple  # empty: the WLAN is not on the air there
    capabilities: int
    fast_transition: bool
    web_login: bool


WLANS = (
    Wlan(1, "campus", "staff", 1, (AKM_8021X, AKM_FT_8021X), (AKM_8021X, AKM_FT_8021X), MFP_CAPABLE, True, False),
    Wlan(2, "campus-guest", "guest", 2, (), (AKM_OWE,), 0, False, True),
    Wlan(3, "campus-devices", "devices", 3, (AKM_PSK, AKM_SAE), (), MFP_CAPABLE, False, False),
    Wlan(4, "campus-lab", "lab", 1, (AKM_SAE, AKM_FT_SAE), (AKM_SAE, AKM_FT_SAE), MFP_CAPABLE | MFP_REQUIRED, True,
         False),
)


def key_bytes(label, length):
    """Made-up key material: no key of anybody, the same each time."""
    return hashlib.shake_128(b"campus example " + label.encode()).digest(length)


# --------------------------------------------------------------------------------------------------- XML output


class Writer:
    """Elements, one per line, indented."""

    def __init__(self, stream):
        self.stream = stream
        self.depth = 0

    def line(self, text):
        self.stream.write("  " * self.depth + text + "\n")

    def value(self, name, value):
        if isinstance(value, bool):
            value = "true" if value else "false"
        self.line(f"<{name}>{escape(str(value))}</{name}>")

    def values(self, **named):
        for name, value in named.items():
            self.value(name, value)

    def array(self, name, values):
        for value in values:
            self.value(name, value)

    def member(self, name, member):
        """An enumeration: its member is an empty element."""
        self.line(f"<{name}><{member}/></{name}>")

    def open(self, *names):
        for name in names:
            self.line(f"<{name}>")
            self.depth += 1
        return _Closing(self, names)


class _Closing:
    def __init__(self, writer, names):
        self.writer = writer
        self.names = names

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for name in reversed(self.names):
            self.writer.depth -= 1
            self.writer.line(f"</{name}>")


# --------------------------------------------------------------------------------------------------- the records


@dataclass(frozen=True)
class Radio:
    access_point: AccessPoint
    slot: int
    band: Band
    number: int  # from 1, over the whole campus

    @property
    def channel(self):
        plan = self.band.plan
        return plan[(self.access_point.number * 2 + self.access_point.floor) % len(plan)]

    @property
    def disabled(self):
        """Every seventh 2.4 GHz radio is off: the neighbours cover its cell."""
        return self.slot == 0 and self.access_point.number % 7 == 0

    @property
    def power_level(self):
        return 3 + self.access_point.number % 2 if self.slot == 0 else 2

    @property
    def event_time(self):
        """In the morning of a Monday, 37 seconds after the radio before."""
        seconds = 37 * self.number
        return f"2025-03-03T0{6 + seconds // 3600}:{seconds // 60 % 60:02}:{seconds % 60:02}.000Z"

    def bssid(self, wlan=0):
        return f"02:00:5e:{self.access_point.number:02x}:{self.slot:02x}:{wlan:02x}"

    @property
    def wlans(self):
        return [wlan for wlan in WLANS if self.band.radio_type != 3 or wlan.key_managements_6ghz]


def radios():
    number = 0
    for access_point in access_points():
        for slot, band in enumerate(BANDS[: 3 if access_point.has_6ghz else 2]):
            number += 1
            yield Radio(access_point, slot, band, number)


def write_radio_key(w, name, radio):
    with w.open(name):
        w.values(wtp_mac=radio.access_point.mac, radio_slot_id=radio.slot)


def write_radio(w, radio):
    band, access_point, slot = radio.band, radio.access_point, radio.slot
    channel = radio.channel
    is_dfs = int(channel in band.dfs)
    profile = f"{band.name.split()[0].replace('.', '-')}ghz-{access_point.building}"
    with w.open("radio_operation_tbl"):
        with w.open("trl_radio_operation_config"):
            w.values(ap_mac=access_point.mac, slot_id=slot, radio_type=band.radio_type)
            w.member("admin_state", "RADIO_ADMINSTATE_DISABLED" if radio.disabled else "RADIO_ADMINSTATE_ENABLED")
            w.member("oper_state", "RADIO_OPERSTATE_DISABLED" if radio.disabled else "RADIO_OPERSTATE_ENABLED")
            w.member("config_state", "RADIO_CFG_ENABLED")
            w.values(reg_domain_set=True, radio_mode=0, radio_sub_mode=0, radio_subtype=0,
                     current_band_id=radio.number)
            w.member("pivot_radio_mode", "PIVOT_RADIO_MODE_LOCAL")
            w.member("slot_shut_reason", "REASON_SHUTDOWN_PROFILE_SHUT" if radio.disabled else "REASON_SHUTDOWN_UP")
            w.values(rf_profile_name=profile, bridge_client_access=False, airtime_allocation=100)
            with w.open("rf_profile_dep"):
                w.values(rf_profile_name=profile, gen_id=1)
            with w.open("station_cfg", "cfg_data"):
                w.value("slot_id", slot)
                w.member("station_cfg_config_type", "TRL_CONFIG_AUTO")
                w.values(medium_occupancy_limit=100, cfp_period=4, cfp_max_duration=60, bssid=radio.bssid(),
                         beacon_period=100, country_string="United States", country_iso_string="US",
                         world_mode_ie=1, vocera_fix=0, max_clients=band.max_clients)
                if band.radio_type == 2:
                    w.array("operational_vht_mcs_set", (0xAA, 0xFF))
            with w.open("multi_domain_cap", "cfg_data"):
                w.member("multi_domain_cap_config_type", "TRL_CONFIG_AUTO")
                w.values(multi_domain_capability_implemented=True, multi_domain_capability_enabled=True,
                         first_chan_num=band.channels[0], num_channels=len(band.channels),
                         max_tx_power_level=band.highest_dbm)
            with w.open("phy_ht_cfg", "cfg_data"):
                w.values(slot_id=slot, ht_enable=int(band.ht_cap_info != 0))
                w.member("phy_ht_cfg_config_type", "TRL_CONFIG_AUTO")
                w.values(curr_freq=channel, freq_bands_supp=1 << (band.radio_type - 1), ti_thresh=4294967246)
                w.member("radar_scan_mode", "TRL_RRM_RADAR_DO_SCAN" if is_dfs else "TRL_RRM_RADAR_NO_SCAN")
                w.values(flash_commit=1, curr_freq_is_dfs_chan=is_dfs, chan_width=band.width, ext_chan=0,
                         vht_enable=int(band.radio_type == 2), vht_dyn_bw_res=int(band.radio_type == 2),
                         leg_tx_bf_enabled=1, leg_tx_bf_global=1, freq_string=f"({channel})",
                         snmp_freq_string=channel)
            with w.open("phy_dsss_cfg", "cfg_data"):
                w.value("slot_id", slot)
                w.member("phy_dsss_config_type", "TRL_CONFIG_AUTO")
                if band.radio_type == 1:
                    w.values(curr_chan=channel, curr_cca_mode=0, ed_threshold=4294967246, enable_11g=1)
            with w.open("phy_ofdm_cfg", "cfg_data"):
                w.value("slot_id", slot)
                w.member("phy_ofdm_config_type", "TRL_CONFIG_AUTO")
                if band.radio_type != 1:
                    w.values(curr_freq=channel, freq_bands_supp=1 << (band.radio_type - 1), ti_threshold=4294967246)
                    w.member("radar_scan_mode", "TRL_RRM_RADAR_DO_SCAN" if is_dfs else "TRL_RRM_RADAR_NO_SCAN")
                    w.values(flash_commit=1, curr_freq_is_dfs_chan=is_dfs)
            with w.open("rad_ext_cfg", "cfg_data"):
                w.values(slot_id=slot, beacon_interval=100, beacon_range=0, multicast_buffer=0,
                         multicast_data_rate=0, rx_sen_sop_thresh=-78 if band.radio_type == 2 else 0,
                         cca_threshold=0)
            with w.open("phy_ht_info"):
                with w.open("cfg_data"):
                    w.values(slot_id=slot, tx_ampdu_prio=0b00110001, tx_amsdu_prio=0b00111111,
                             agg_scheduler_enable=1, agg_sch_rt_timeout=10, agg_sch_nrt_timeout=200, frame_burst=0)
                with w.open("data"):
                    w.values(slot_id=slot, num_rx_ant=band.streams, num_rx_chains=band.streams,
                             num_tx_ant=band.streams, num_tx_chains=band.streams, num_ss=band.streams)
                    w.array("dot11n_mcs_rates", (255,) * band.streams)
                    w.values(guard_interval=1)
                    if band.radio_type == 2:
                        w.array("vht_oper_info", (1, center_of_80_mhz(channel), 0))
                        w.array("vht_basic_mcs_set", (0xFC, 0xFF))
            with w.open("phy_ht_cap"):
                with w.open("cfg_data"):
                    w.value("slot_id", slot)
                    w.array("mcs_rates", (255,) * band.streams)
                    w.array("operational_mcs_rates", (255,) * band.streams)
                    if band.radio_type == 2:
                        w.array("vht_mcs_rate_set", (0xAA, 0xFF, 0, 0, 0xAA, 0xFF, 0, 0))
                with w.open("data"):
                    w.values(slot_id=slot, ht_cap_info=band.ht_cap_info, vht_capable=int(band.radio_type == 2),
                             ht_capable=band.ht_cap_info != 0)
                    w.array("vht_cap_info", band.vht_cap_info)
            with w.open("chan_pwr_info", "data"):
                w.values(antenna_gain=band.antenna_gain, int_antenna_gain=band.antenna_gain, ext_antenna_gain=0,
                         num_of_channels=len(band.channels), chan_list=",".join(map(str, band.channels)))
                for number in band.channels:
                    channel_levels = power_levels(band.highest_dbm - (3 if number in band.dfs else 0))
                    with w.open("chan_pwr"):
                        w.values(chan=number, valid_pwr_levels=len(channel_levels))
                        w.array("pwr_levels_dbm", channel_levels)
            with w.open("mfp_cfg", "data"):
                w.values(capability=1, flags=0)
            with w.open("pollard_cfg"):
                w.value("channel_count", min(4, len(band.plan)))
                w.array("channels", band.plan[:4])
            with w.open("sniffer_cfg"):
                w.values(sniffer_enabled=False, channel=0, server_ip="192.0.2.53", sniffer_ip_invalid=False)
            with w.open("last_event"):
                w.member("event_type", "TRL_EVT_RADIO_IF_DOWN" if radio.disabled else "TRL_EVT_RADIO_CHANNEL_CHANGE")
                w.value("event_time", radio.event_time)
            w.value("antenna_pid", "internal-omni")
            w.array("bssid_idx", [wlan.wlan_id for wlan in radio.wlans])
            w.array("port_id", [100 + wlan.wlan_id for wlan in radio.wlans])
            w.value("reg_domain_check_status", 0)
            with w.open("active_wlans"):
                w.value("index", sum(1 << wlan.wlan_id for wlan in radio.wlans))
            w.value("radio_ifid", 0x90000000 + radio.number)
        write_radio_key(w, "trl_radio_slot_key_t", radio)


def write_band(w, radio):
    band = radio.band
    levels = power_levels(band.highest_dbm)
    with w.open("radio_band_tbl", "trl_radio_band_info"):
        w.values(band_id=radio.number, reg_domain_code=0, radio_type=band.radio_type)
        with w.open("mac_oper_cfg", "cfg_data"):
            w.member("mac_operation_config_type", "TRL_CONFIG_AUTO")
            w.values(rts_threshold=2347, short_retry_limit=7, long_retry_limit=4, frag_threshold=2346,
                     max_tx_life_time=512, max_rx_life_time=512)
        with w.open("phy_tx_pwr_cfg", "cfg_data"):
            w.member("phy_tx_power_config_type", "TRL_CONFIG_AUTO")
            w.values(current_tx_power_level=radio.power_level, reason=1)
        with w.open("phy_tx_pwr_lvl_cfg", "cfg_data"):
            w.value("num_supp_power_levels", len(levels))
            for number, dbm in enumerate(levels, start=1):
                w.value(f"tx_power_level_{number}", dbm)
            w.values(curr_tx_power_in_dbm=levels[radio.power_level - 1],
                     tx_power_level_str="/".join(map(str, levels)))
        with w.open("performance_profile", "cfg_data"):
            w.member("performance_profile_config_type", "TRL_CONFIG_STATIC")
            w.values(rf_busy_thresh=80, num_clients_thresh=12, bytes_per_sec=1000000, rf_foreign_thresh=10,
                     rssi_thresh=176, min_perf_SNR=16, exception_level=25, min_num_clients_thresh=3)
        with w.open("antenna_cfg", "cfg_data"):
            w.values(diversity_selection=1, antenna_mode=1, ht_rx_antenna_selection=(1 << band.streams) - 1,
                     ht_tx_antenna_selection=(1 << band.streams) - 1, num_of_antennas=band.streams)
            w.array("antenna_selection", (1,) * band.streams)
        with w.open("rate_cfg", "cfg_data"):
            w.array("supported_rate_tx_value", band.rates)
            w.array("supported_rate_rx_value", band.rates)
        write_radio_key(w, "parent_radio_tbl_key", radio)


def write_vap(w, radio, wlan, vap_id):
    on_6ghz = radio.band.radio_type == 3
    key_managements = wlan.key_managements_6ghz if on_6ghz else wlan.key_managements
    capabilities = MFP_CAPABLE | MFP_REQUIRED if on_6ghz else wlan.capabilities
    protected = bool(key_managements)
    rsn = rsn_element(key_managements, capabilities) if protected else ()
    bssid = radio.bssid(wlan.wlan_id)
    with w.open("vap_operational_config_tbl", "trl_vap_operational_config"):
        w.values(wlan_id=wlan.wlan_id, ap_vap_id=vap_id, bssid_mac=bssid, wtp_mac=radio.access_point.mac)
        with w.open("bssid_operational_config"):
            w.values(capability=CAPABILITY_ESS | CAPABILITY_SHORT_SLOT | (CAPABILITY_PRIVACY if protected else 0),
                     encrypt_policy=CCMP if protected else 0, key_index=1 if protected else 0, shared=0, vap_type=0,
                     wpa_data_len=0)
            w.array("rsn_data", rsn)
            w.value("rsn_data_len", len(rsn))
            w.array("wme_data", WME_ELEMENT)
            w.value("wme_data_len", len(WME_ELEMENT))
            w.value("dot11r_mdie_data_len", len(MOBILITY_ELEMENT) if wlan.fast_transition else 0)
            if wlan.fast_transition:
                w.array("dot11r_mdie_data", MOBILITY_ELEMENT)
            w.value("dot11w_mfp_capabilities", capabilities >> 6)
            if protected:
                if capabilities:
                    w.values(igtk_key_id=4, igtk=key_bytes(f"igtk {bssid}", 16).hex())
                w.values(gnonce=key_bytes(f"gnonce {bssid}", 32).hex(), gmk=key_bytes(f"gmk {bssid}", 32).hex(),
                         gtk=key_bytes(f"gtk {bssid}", 16).hex(), gtk_key_id=1, gtk_len=16)
            w.values(ipn=0, auth_type=3 if AKM_SAE in key_managements else 0, interface_name=wlan.interface)
            if wlan.web_login:
                w.value("webauth_serverip", 0xC0000235)  # 192.0.2.53
            w.values(wlan_active=int(not radio.disabled), dtim=wlan.dtim)
            if AKM_PSK in key_managements:
                w.array("wpa_psk", key_bytes(f"psk {wlan.ssid}", 32))
                w.value("wpa_psk_len", 32)
            w.values(fastkey_tsf_tolerance=1000, dot11v_dms=True, dot11v_bss_max_idle=True,
                     dot11v_bss_max_idle_protected=False, dot11v_tfs=True, dot11v_bss_transition=True,
                     dot11v_wnm_sleep_mode=True, dot11v_bss_term_in_progress=False)
            for direction in ("ingress", "egress"):
                with w.open(f"{direction}_dpidx"):
                    w.value("template_dpidx", wlan.wlan_id)
                w.value(f"{direction}_enabled", wlan.web_login)
            w.values(wpa_dot1x=AKM_8021X in key_managements, wpa_fastkey_enable=False,
                     ft_dot1x=AKM_FT_8021X in key_managements, ft_sae=AKM_FT_SAE in key_managements,
                     wpa_pmf_dot1x=AKM_8021X in key_managements and bool(capabilities),
                     wpa_sae=AKM_SAE in key_managements)
        w.values(wlan_profile_name=f"{wlan.ssid}-profile", ssid=wlan.ssid, status=not radio.disabled,
                 bssid_ifid=0xA0000000 + vap_id)
        write_radio_key(w, "parent_radio_tbl_key", radio)


def write_campus(stream):
    stream.write('<?xml version="1.0" encoding="UTF-8"?>\n')
    w = Writer(stream)
    all_radios = list(radios())
    with w.open("campus"):
        for radio in all_radios:
            write_radio(w, radio)
        for radio in all_radios:
            write_band(w, radio)
        vap_id = 0
        for radio in all_radios:
            for wlan in radio.wlans:
                vap_id += 1
                write_vap(w, radio, wlan, vap_id)


def main(arguments):
    if len(arguments) > 1 or (arguments and arguments[0].startswith("-")):
        sys.exit(__doc__)
    if not arguments:
        write_campus(sys.stdout)
        return
    with open(arguments[0], "w", encoding="utf-8", newline="\n") as stream:
        write_campus(stream)


if __name__ == "__main__":
    main(sys.argv[1:])
