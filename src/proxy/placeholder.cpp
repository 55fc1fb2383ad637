// proxy
