std = "ngx_lua"
max_line_length = 100
