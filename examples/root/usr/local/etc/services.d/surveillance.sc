# Video surveillance package (a single section, no [global] section).
[surveillance]
title_key="pkg:surveillance:title"
title="Surveillance station"
desc_key="pkg:surveillance:desc"
desc="Records and shows IP camera streams"
port_forward="yes"
dst.ports="9900,9901/tcp"
