
eth1