"""Keys and entries as Python objects: made from keywords, dicts and other records, read
and written by name (nested fields in place), addresses as ipaddress objects and strings,
compared, hashed, printed as the CLI prints them; bad input raises TypeError or ValueError
naming the field."""

import copy
import pprint
from ipaddress import IPv4Address, IPv4Network, IPv6Address, IPv6Network

import pytest
import vesktap

Key = vesktap.DefaultFwdTcamEntryEntryKey


class TestMaking:
    def test_every_table_type_has_its_key_and_entry(self):
        for table in vesktap.tables():
            key, entry = getattr(vesktap, table + "EntryKey"), getattr(vesktap, table + "Entry")
            assert entry._fields[0] == "entryKey"
            assert key() == key() and entry().entryKey == key()
            assert ("action" in entry._fields) == table.endswith("Action")

    def test_keywords_dicts_and_records_give_the_same_key(self):
        by_keywords = Key(priority=7, ingressPort=vesktap.U32Match(value=3, mask=0xFFFFFFFF),
                          dstMac={"value": b"\x00\x11\x22\x33\x44\x55", "mask": [0xFF] * 6}, actionIndex=9)
        as_dict = by_keywords.to_dict()
        assert as_dict["ingressPort"] == {"value": 3, "mask": 0xFFFFFFFF}
        assert as_dict["dstMac"]["value"] == "00:11:22:33:44:55"
        assert Key(as_dict) == by_keywords
        assert Key(by_keywords) == by_keywords and Key(by_keywords) is not by_keywords
        assert Key(as_dict, priority=8).priority == 8
        assert Key(as_dict, priority=8) != by_keywords
        assert Key().priority == 0 and Key().srcIp.to_dict() == {"value": IPv4Address(0), "mask": IPv4Address(0)}

    def test_nested_fields_change_in_place(self):
        key = Key(priority=1)
        key.ingressPort.mask = 0xFF
        key.srcIp = {"value": 0x0A000001, "mask": 0xFFFFFFFF}
        key.vlan = vesktap.U16Match(value=5, mask=0xFFF)
        key.dstMac.value = [1, 2, 3, 4, 5, 6]
        assert key.to_dict()["ingressPort"] == {"value": 0, "mask": 0xFF}
        assert key.srcIp.value == IPv4Address("10.0.0.1") and key.vlan.value == 5
        assert key.dstMac.value == "01:02:03:04:05:06"
        entry = vesktap.ServicePolicyV4TcamActionEntry(entryKey={"index": 4})
        entry.action.redirectPort = 12
        assert entry.action.redirectPort == 12 and entry.entryKey.index == 4

    def test_text_is_the_clis_and_repr_makes_it_again(self):
        key = Key(priority=5, ingressPort={"value": 3, "mask": 0xFFFFFFFF}, actionIndex=2)
        assert str(key) == "DefaultFwdTcamEntryEntryKey(priority=5, ingressPort=3/0xffffffff, actionIndex=2)"
        entry = vesktap.DefaultFwdTcamActionEntry(entryKey={"index": 1},
                                                  action={"kind": 1, "redirectPort": 7, "flags": 1, "counterId": 4})
        assert str(entry) == ("DefaultFwdTcamActionEntry(entryKey=DefaultFwdTcamActionEntryKey(index=1), "
                              "action=TcamAction(kind=redirect, flags=count, redirectPort=7, counterId=4))")
        assert eval(repr(entry), vars(vesktap)) == entry
        assert "reserved" not in repr(entry) and "reserved" not in vesktap.TcamAction._fields

    def test_long_records_pretty_print(self):
        keys = [Key(priority=n) for n in range(2)]
        assert pprint.pformat(keys).splitlines()[1].strip() == repr(keys[1]) + "]"

    def test_equal_records_hash_alike_and_copies_are_independent(self):
        a, b = Key(priority=1, vlan={"value": 2, "mask": 3}), Key(priority=1, vlan={"value": 2, "mask": 3})
        assert a == b and hash(a) == hash(b) and len({a, b}) == 1
        assert a != Key(priority=1) and a != vesktap.DefaultFwdTcamActionEntryKey(index=1)
        assert (a == 1) is False
        c = copy.deepcopy(a)
        c.vlan.value = 9
        assert a.vlan.value == 2

    def test_byte_arrays_take_bytes_or_ints(self):
        ip6 = vesktap.Ip6Match(value=bytes(range(16)), mask=bytearray(b"\xff" * 16))
        assert ip6.value == IPv6Address(bytes(range(16))) and ip6.mask == IPv6Address(b"\xff" * 16)


class TestAddresses:
    def test_ip4_fields_take_addresses_prefixes_strings_and_ints(self):
        exact = Key(srcIp="10.0.0.1")
        assert exact.srcIp.to_dict() == {"value": IPv4Address("10.0.0.1"), "mask": IPv4Address("255.255.255.255")}
        assert Key(srcIp=IPv4Address("10.0.0.1")) == exact
        prefix = Key(srcIp="10.0.0.0/24")
        assert prefix.srcIp.value == IPv4Address("10.0.0.0") and prefix.srcIp.mask == IPv4Address("255.255.255.0")
        for same in ("10.0.0.0/255.255.255.0", IPv4Network("10.0.0.0/24"), {"value": "10.0.0.0", "mask": 0xFFFFFF00},
                     {"value": IPv4Address("10.0.0.0"), "mask": "255.255.255.0"}):
            assert Key(srcIp=same) == prefix, same
        key = Key()
        key.dstIp.value = 0x0A000001  # ints still do
        key.dstIp.mask = "255.0.255.0"  # a TCAM mask need not be a prefix
        assert key.dstIp.value == IPv4Address("10.0.0.1") and str(key.dstIp) == "10.0.0.1/255.0.255.0"
        assert str(prefix) == "DefaultFwdTcamEntryEntryKey(priority=0, srcIp=10.0.0.0/255.255.255.0)"

    def test_ip6_and_mac_fields(self):
        v6 = vesktap.ServicePolicyV6TcamEntryEntryKey(srcIp="2001:db8::/32", dstIp=IPv6Address("2001:db8::1"))
        assert v6.srcIp.value == IPv6Address("2001:db8::") and v6.srcIp.mask == IPv6Address("ffff:ffff::")
        assert v6.dstIp.mask == IPv6Address((1 << 128) - 1)
        assert vesktap.Ip6Match(IPv6Network("2001:db8::/32")) == v6.srcIp
        mac = vesktap.MacMatch(value="AA:bb:cc:dd:ee:0F", mask=b"\xff" * 6)
        assert (mac.value, mac.mask) == ("aa:bb:cc:dd:ee:0f", "ff:ff:ff:ff:ff:ff")
        assert Key(dstMac="aa:bb:cc:00:00:00/24").dstMac.mask == "ff:ff:ff:00:00:00"
        for match in (v6.srcIp, v6.dstIp, mac, Key(srcIp="10.1.0.0/16").srcIp):  # the CLI's text makes it again
            assert type(match)(str(match)) == match

    def test_addresses_make_the_record_again(self):
        key = Key(srcIp="10.0.0.0/8", dstMac="00:1c:73:01:02:03", priority=4)
        assert "srcIp=Ip4Match(value='10.0.0.0', mask='255.0.0.0')" in repr(key)
        assert eval(repr(key), vars(vesktap)) == key and Key(key.to_dict()) == key

    def test_bad_addresses_name_the_field_and_the_form(self):
        with pytest.raises(ValueError, match=r"^DefaultFwdTcamEntryEntryKey\.srcIp\.value: '10\.0\.0\.300' is not an "
                                             r"IPv4 address \(expected a form like '10\.0\.0\.1'\)$"):
            Key(srcIp={"value": "10.0.0.300"})
        with pytest.raises(ValueError, match=r"^DefaultFwdTcamEntryEntryKey\.srcIp: '10\.0\.0\.0/33' is not an IPv4 "
                                             r"address or prefix \(expected a form like '10\.0\.0\.1', '10\.0\.0\.0/24' "
                                             r"or '10\.0\.0\.0/255\.255\.255\.0'\)$"):
            Key(srcIp="10.0.0.0/33")
        with pytest.raises(ValueError, match=r"^MacMatch\.value: 'aa:bb:cc:dd:ee' is not a MAC address "
                                             r"\(expected a form like 'aa:bb:cc:dd:ee:ff'\)$"):
            vesktap.MacMatch(value="aa:bb:cc:dd:ee")
        with pytest.raises(ValueError, match=r"Ip6Match: '2001:db8::/129' is not an IPv6 address or prefix"):
            vesktap.Ip6Match("2001:db8::/129")
        with pytest.raises(TypeError, match=r"^DefaultFwdTcamEntryEntryKey\.srcIp: expected an Ip4Match, a dict, or an "
                                            r"IPv4 address or prefix such as '10\.0\.0\.0/24', got IPv6Network$"):
            Key(srcIp=IPv6Network("2001:db8::/32"))
        with pytest.raises(TypeError, match=r"^Ip6Match\.value: expected an IPv6Address, a str such as '2001:db8::1' "
                                            r"or 16 bytes or ints, got IPv4Address$"):
            vesktap.Ip6Match(value=IPv4Address("10.0.0.1"))
        key = Key(srcIp="10.0.0.0/24")
        with pytest.raises(ValueError, match=r"'10\.0\.0\.1/24' has address bits outside its mask "
                                             r"\(expected a form like '10\.0\.0\.0/24'\)"):
            key.srcIp = "10.0.0.1/24"  # nothing dropped in silence
        assert key == Key(srcIp="10.0.0.0/24")


class TestBadInputs:
    def test_unknown_fields_are_named(self):
        with pytest.raises(TypeError, match=r"^DefaultFwdTcamEntryEntryKey has no field 'prio' "
                                            r"\(fields: priority, ingressPort, "):
            Key(prio=1)
        with pytest.raises(TypeError, match=r"DefaultFwdTcamEntryEntryKey.vlan: U16Match has no field 'id'"):
            Key({"vlan": {"id": 1}})
        with pytest.raises(AttributeError):
            vesktap.ServicePolicyV4TcamEntryEntryKey().reserved

    def test_numbers_out_of_range(self):
        with pytest.raises(ValueError, match=r"DefaultFwdTcamEntryEntryKey.priority: -1 is out of range \(0 to 4294967295\)"):
            Key(priority=-1)
        with pytest.raises(ValueError, match=r"U8Match.value: 256 is out of range \(0 to 255\)"):
            vesktap.U8Match(value=256)
        with pytest.raises(ValueError, match="out of range"):
            Key(priority=1 << 70)
        key = Key(priority=3)
        with pytest.raises(ValueError, match=r"U16Match.mask: 65536 is out of range"):
            key.vlan.mask = 65536
        assert key == Key(priority=3)  # a refused value changes nothing

    def test_wrong_kinds(self):
        with pytest.raises(TypeError, match="DefaultFwdTcamEntryEntryKey.priority: expected an int, got str"):
            Key(priority="1")
        with pytest.raises(TypeError, match="expected an int, got bool"):
            Key(priority=True)
        with pytest.raises(TypeError, match="DefaultFwdTcamEntryEntryKey.vlan: expected a U16Match or a dict, got U32Match"):
            Key(vlan=vesktap.U32Match())
        with pytest.raises(TypeError, match=r"DefaultFwdTcamEntryEntryKey\(\) takes at most one record or dict, got 2"):
            Key({}, {})
        with pytest.raises(TypeError, match="MacMatch.value: expected a str such as 'aa:bb:cc:dd:ee:ff' or 6 bytes "
                                            "or ints, got float"):
            vesktap.MacMatch(value=1.5)

    def test_wrong_byte_counts(self):
        with pytest.raises(ValueError, match="MacMatch.value: expected 6 bytes, got 4"):
            vesktap.MacMatch(value=b"\x00\x01\x02\x03")
        with pytest.raises(ValueError, match=r"MacMatch.mask\[2\]: 300 is out of range"):
            vesktap.MacMatch(mask=[1, 2, 300, 4, 5, 6])
