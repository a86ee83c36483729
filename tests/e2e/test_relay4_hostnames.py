"""One interface naming one server host twice, in entries that differ in VRF, source
interface or source address: a reload that drops one entry leaves the other following
the name's address, and a reload that drops the last one leaves the agent serving."""

import pytest

import lab as L
from test_relay4_vrf import NO_PING

NAME = f"dhcp1.{L.DNS_DOMAIN}"
TTL = 5  # the least TTL the agent honours
NAMED = {"hostname": NAME}
SECOND_ENTRY = {"vrf": {"vrf": "red"}, "source-interface": {"source-interface": "Ethernet2"},
                "source-address": {"source-address": L.RELAY_SERVER_IP}}


@pytest.mark.parametrize("second", SECOND_ENTRY.values(), ids=SECOND_ENTRY.keys())
def test_reloads_dropping_the_entries_that_name_one_host(lab, relay_agent, second):  # noqa: F811
    lab.split_red_vrf()
    lab.start_dhcpd("server2", extra=NO_PING)
    lab.start_dns({NAME: L.SERVER_IP}, ttl=TTL)

    def servers(*entries):
        lab.agent_config(information_option=True, servers=list(entries))
    a = relay_agent(information_option=True, servers=[NAMED, {**NAMED, **second}])
    L.wait_for(lambda: L.SERVER_IP in lab.dns_queries(NAME), 10, f"the agent to resolve {NAME}")
    servers(NAMED)
    a.ctl("reload")
    lab.set_dns({NAME: L.SERVER2_IP})
    L.wait_for(lambda: L.SERVER2_IP in lab.dns_queries(NAME), TTL + 10,
               f"the agent to ask for {NAME} again")
    lease = lab.dhclient(timeout=10)
    assert lease is not None and lease.server == L.SERVER2_IP, (a.log_text(), lease)

    servers({"address": L.SERVER2_IP})
    a.ctl("reload")
    assert lab.dhclient(timeout=10) is not None, a.log_text()
    assert a.proc.poll() is None, a.log_text()
