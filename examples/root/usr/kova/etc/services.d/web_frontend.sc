# Web front end of the administration interface and of hosted web sites.
[global]
version="2"

[web_frontend]
title_key="firewall:web_frontend_title"
title="Web front end"
desc_key="firewall:web_frontend_desc"
desc="Administration interface and web sites over HTTP and HTTPS"
port_forward="yes"
dst.ports="80,443/tcp"

[web_admin]
title_key="firewall:web_admin_title"
title="Administration console"
desc_key="firewall:web_admin_desc"
desc="Administration console on its own ports"
port_forward="yes"
dst.ports="5000,5001/tcp"
