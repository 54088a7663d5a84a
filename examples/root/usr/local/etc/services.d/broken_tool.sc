# A package author's mistakes: every section is wrong, so the file is left out.
[global]
version="1"

[broken tool]
title="Section name with a space"
desc="Not a valid section name"
dst.ports="7000/tcp"

[broken_ports]
title="Port out of range"
desc="99999 is not a port"
dst.ports="99999/tcp"

[broken_protocol]
title="Unknown protocol"
desc="icmp is not a port protocol"
dst.ports="7001/icmp"

[broken_desc]
title="No description"
dst.ports="7002/tcp"
