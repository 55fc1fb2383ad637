// auth
