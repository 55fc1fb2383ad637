// registrar
